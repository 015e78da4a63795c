// SPDX-License-Identifier: MIT
// qkcam list, info, get, set and values.

#include <iostream>
#include <map>
#include <mutex>

#include "tool/qkcam/Cli.h"

namespace qkcli {

namespace {

using json = nlohmann::ordered_json;

int List(const Choice& choice)
{
    Session session;
    if (int status = session.Open(choice, true, true))
        return status;
    json cameras = json::array();
    for (const Rig::Camera& camera : session.Cameras()) {
        const std::string model = Narrow(camera.device->GetCameraId());
        const std::string product = Narrow(camera.device->GetCameraName());
        if (choice.json)
            cameras.push_back({{"serial", Narrow(camera.serial)}, {"model", model}, {"product", product},
                               {"path", Narrow(camera.path)}});
        else
            std::cout << Narrow(camera.serial) << '\t' << model << '\t' << product << '\t' << Narrow(camera.path)
                      << '\n';
    }
    if (choice.json)
        std::cout << cameras.dump(2) << '\n';
    return session.Partial();
}

json Info(DevicePTP& device, const std::wstring& serial)
{
    json info;
    info["serial"] = Narrow(serial);
    info["model"] = Narrow(device.GetCameraId());
    info["product"] = Narrow(device.GetCameraName());
    info["moduleVersion"] = Narrow(device.GetModuleVersion());
    int battery = 0;
    const int batteryLevel = static_cast<int>(QKProp::BatteryLevel);
    info["battery"] = device.GetPropertyData(batteryLevel, &battery) == QK_OK ? json(ValueName(batteryLevel, battery))
                                                                              : json();
    int zoom = 0, maxZoom = 0;
    if (device.GetZoom(&zoom) == QK_OK && device.GetMaximumZoom(&maxZoom) == QK_OK)
        info["zoom"] = {{"position", zoom}, {"min", 0}, {"max", maxZoom}};
    const std::vector<int> properties = CameraProperties(device);
    int focus = 0;
    if (std::count(properties.begin(), properties.end(), static_cast<int>(QKProp::ManualFocusMode)) &&
        device.GetFocus(&focus) == QK_OK)
        info["focus"] = focus;
    return info;
}

int ShowInfo(const Choice& choice)
{
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    for (const Rig::Camera& camera : session.Cameras()) {
        json info = Info(*camera.device, camera.serial);
        if (choice.json) {
            std::cout << info.dump(2) << '\n';
            continue;
        }
        for (const auto& [key, value] : info.items()) {
            std::cout << key << ": ";
            if (value.is_object())
                std::cout << value["position"] << " (" << value["min"] << " to " << value["max"] << ")";
            else
                std::cout << (value.is_string() ? value.get<std::string>() : value.dump());
            std::cout << '\n';
        }
    }
    return session.Partial();
}

// Names or numbers to property numbers; an unknown one ends the command.
int ResolveProperties(const std::vector<std::string>& names, std::vector<int>* properties)
{
    for (const std::string& name : names) {
        std::optional<int> property = FindProperty(name);
        if (!property) {
            return Say(kUsage, "unknown property \"" + name + "\"; properties: " + JoinNames(qkrig::AllPropertyNames()));
        }
        properties->push_back(*property);
    }
    return kOk;
}

int Get(const Choice& choice, const std::vector<std::string>& names)
{
    std::vector<int> asked;
    if (int status = ResolveProperties(names, &asked))
        return status;
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    int status = session.Partial();
    json all = json::object();
    for (const Rig::Camera& camera : session.Cameras()) {
        const std::vector<int> properties = asked.empty() ? CameraProperties(*camera.device) : asked;
        json values = json::object();
        for (int property : properties) {
            int value = 0;
            const QKResult result = camera.device->GetPropertyData(property, &value);
            if (result != QK_OK) {
                status = std::max(status, Failed(camera.serial, "GetPropertyData " + PropertyName(property), result));
                continue;
            }
            values[PropertyName(property)] = ValueName(property, value);
            if (!choice.json)
                std::cout << (choice.all ? Narrow(camera.serial) + " " : "") << PropertyName(property) << " = "
                          << ValueName(property, value) << '\n';
        }
        all[Narrow(camera.serial)] = values;
    }
    if (choice.json)
        std::cout << all.dump(2) << '\n';
    return status;
}

std::vector<std::string> ValueNames(int property, const std::vector<int>& values)
{
    std::vector<std::string> names;
    for (int value : values)
        names.push_back(ValueName(property, value));
    return names;
}

int Set(const Choice& choice, const std::vector<std::string>& assignments)
{
    std::vector<std::pair<int, int>> wanted;
    for (const std::string& assignment : assignments) {
        const size_t equals = assignment.find('=');
        if (equals == std::string::npos)
            return Say(kUsage, "\"" + assignment + "\" is not PROPERTY=VALUE");
        std::vector<int> property;
        if (int status = ResolveProperties({assignment.substr(0, equals)}, &property))
            return status;
        const std::string valueText = assignment.substr(equals + 1);
        std::optional<int> value = FindValue(property[0], valueText);
        if (!value) {
            return Say(kUsage, "unknown value \"" + valueText + "\" of " + PropertyName(property[0]) +
                                   "; values: " + JoinNames(qkrig::AllValueNames(property[0])));
        }
        wanted.emplace_back(property[0], *value);
    }
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    std::mutex say;
    int barred = kOk;
    std::vector<RigOutcome> outcomes = session.TheRig().ForEach([&](const Rig::Camera& camera, std::string* step) {
        for (const auto& [property, value] : wanted) {
            const std::vector<int> allowed = AllowedValues(*camera.device, property);
            if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
                std::lock_guard<std::mutex> lock(say);
                barred = Say(kUsage, "camera " + Narrow(camera.serial) + ": " + PropertyName(property) + " = " +
                                         ValueName(property, value) + " is not available now; values: " +
                                         JoinNames(ValueNames(property, allowed)));
                continue;
            }
            *step = "SetPropertyData " + PropertyName(property);
            const QKResult result = camera.device->SetPropertyData(property, value);
            if (result != QK_OK)
                return result;
        }
        return QK_OK;
    });
    return std::max({session.Partial(), Session::Report(outcomes), barred});
}

int Values(const Choice& choice, const std::string& name)
{
    std::vector<int> property;
    if (int status = ResolveProperties({name}, &property))
        return status;
    Session session;
    if (int status = session.Open(choice, false))
        return status;
    DevicePTP& device = *session.Cameras().front().device;
    std::vector<int> properties = CameraProperties(device);
    if (std::find(properties.begin(), properties.end(), property[0]) == properties.end())
        return Say(kUsage, "camera " + Narrow(session.Cameras().front().serial) + " has no " +
                               PropertyName(property[0]));
    for (const std::string& value : ValueNames(property[0], AllowedValues(device, property[0])))
        std::cout << value << '\n';
    return kOk;
}

} // namespace

void AddSettingCommands(CLI::App& app, int* status)
{
    auto choice = std::make_shared<Choice>();
    auto names = std::make_shared<std::vector<std::string>>();

    CLI::App* list = app.add_subcommand("list", "List the attached cameras: serial, model, product, device path");
    list->add_flag("--json", choice->json, "as JSON");
    list->callback([=] { *status = List(*choice); });

    CLI::App* info = app.add_subcommand("info", "Model, serial, module version, battery, zoom and focus of a camera");
    AddChoice(info, choice.get(), false);
    info->add_flag("--json", choice->json, "as JSON");
    info->callback([=] { *status = ShowInfo(*choice); });

    CLI::App* get = app.add_subcommand("get", "Show property values by their display names");
    AddChoice(get, choice.get(), true);
    get->add_flag("--json", choice->json, "as JSON");
    get->add_option("PROPERTY", *names, "properties to show (all when none is given)");
    get->callback([=] { *status = Get(*choice, *names); });

    CLI::App* set = app.add_subcommand("set", "Set properties: PROPERTY=VALUE, names or numbers");
    AddChoice(set, choice.get(), true);
    set->add_option("ASSIGNMENT", *names, "PROPERTY=VALUE")->required();
    set->callback([=] { *status = Set(*choice, *names); });

    auto property = std::make_shared<std::string>();
    CLI::App* values = app.add_subcommand("values", "List the values a property can take now");
    AddChoice(values, choice.get(), false);
    values->add_option("PROPERTY", *property, "property name or number")->required();
    values->callback([=] { *status = Values(*choice, *property); });
}

} // namespace qkcli
