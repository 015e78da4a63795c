// SPDX-License-Identifier: MIT
// The qkcam command, run as a program of its own against virtual cameras of
// this test process: what it prints, the files it writes, what it leaves on
// the cards, and its exit status.

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "DevicePTP/PtpCodes.h"
#include "sim/CameraCard.h"
#include "sim/CommandTrace.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using json = nlohmann::json;
using qktest::ChildRun;

class QkcamTest : public qktest::VirtualCameraTest {
protected:
    void SetUp() override
    {
        const char* models[] = {"SX160", "A1400", "G15"};
        for (int i = 0; i < 3; ++i)
            cameras.push_back(AddCamera(models[i], "S" + std::to_string(i + 1)));
        dir = qktest::TempDir() + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::create_directories(dir);
    }
    // Its logs go to the test's directory, never to the default ones.
    ChildRun Qkcam(std::vector<std::string> args)
    {
        args.insert(args.begin(), {QK_CLI_PATH, "--log-dir", dir});
        return qktest::RunChild(args);
    }
    static std::vector<uint8_t> ReadFile(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
    }
    std::vector<std::string> CardNames(int camera)
    {
        std::vector<std::string> names;
        for (const auto& object : cameras[camera]->Card().Objects())
            if (!object.IsFolder())
                names.push_back(object.name);
        return names;
    }
    std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
    std::string dir;
};

// Status, and what must be in standard output or standard error.
TEST_F(QkcamTest, StatusAndMessages)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    };
    const Case cases[] = {
        {{"list"}, 0, "S2\tA1400\tQK Virtual Camera A1400\t", ""},
        {{"info"}, 2, "", "several cameras are attached; choose one with -c: S1, S2, S3"},
        {{"info", "-c", "S9"}, 3, "", "no camera with serial S9"},
        {{"get", "-c", "S1", "Bogus"}, 2, "", "unknown property \"Bogus\"; properties: Shooting Mode, Image Size"},
        {{"set", "-c", "S1", "ISO Speed=ISO 7"}, 2, "", "unknown value \"ISO 7\" of ISO Speed; values: Auto, ISO 80"},
        {{"set", "-c", "S1", "JPEG Quality=Superfine"}, 2, "",
         "camera S1: JPEG Quality = Superfine is not available now; values: Fine, Normal"},
        {{"set", "-c", "S1", "ISO Speed"}, 2, "", "\"ISO Speed\" is not PROPERTY=VALUE"},
        {{"values", "-c", "S1", "jpeg quality"}, 0, "Fine\nNormal\n", ""},
        {{"zoom", "-c", "S1", "wide"}, 2, "", "POSITION"},
        {{"focus", "-c", "S1"}, 2, "", "give a POSITION or --shift N"},
        {{"rm", "-c", "S1", "IMG_0001.JPG", "NOFILE.JPG"}, 2, "", "camera S1 has no file NOFILE.JPG"},
        {{"shoot", "--remove"}, 2, "", "--remove requires --download"},
        {{"video", "start", "-c", "S1"}, 0, "", ""},
        {{"video", "stop", "-c", "S1"}, 0, "S1\tMVI_0005.MOV\t", ""},
        {{"camera-log", "-c", "S1"}, 0, "camera log written to " + dir + "/qkdll.log", ""},
        {{"bogus"}, 2, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args.back() : ""));
        ChildRun run = Qkcam(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_NE(run.out.find(c.out), std::string::npos) << run.out;
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    }
    // A refused removal list removed nothing.
    EXPECT_NE(cameras[0]->Card().Find("IMG_0001.JPG"), 0u);
    qksim::VirtualBus::Instance().RemoveAll();
    EXPECT_EQ(Qkcam({"list"}).status, 3);
}

TEST_F(QkcamTest, JsonMatchesWhatWasSetByNameAndByNumber)
{
    json list = json::parse(Qkcam({"list", "--json"}).out);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[2]["serial"], "S3");
    EXPECT_EQ(list[2]["model"], "G15");
    EXPECT_EQ(list[2]["path"], wstrToStr(cameras[2]->Path()));

    ASSERT_EQ(Qkcam({"set", "--all", "iso speed=iso 400", "Metering Mode=Spot"}).status, 0);
    // Numbers too: property 7 is ISO Speed, whose value 200 is "ISO 200".
    ASSERT_EQ(Qkcam({"set", "-c", "S2", "7=200"}).status, 0);
    json got = json::parse(Qkcam({"get", "--all", "ISO Speed", "metering mode", "--json"}).out);
    EXPECT_EQ(got["S1"]["ISO Speed"], "ISO 400");
    EXPECT_EQ(got["S2"]["ISO Speed"], "ISO 200");
    EXPECT_EQ(got["S3"]["Metering Mode"], "Spot");

    ASSERT_EQ(Qkcam({"zoom", "-c", "S1", "40"}).status, 0);
    json info = json::parse(Qkcam({"info", "-c", "S1", "--json"}).out);
    EXPECT_EQ(info["model"], "SX160");
    EXPECT_EQ(info["zoom"]["position"], 40);
    EXPECT_EQ(info["zoom"]["max"], 125);
    EXPECT_FALSE(info["moduleVersion"].get<std::string>().empty());
}

TEST_F(QkcamTest, ShootAllDownloadsEachCamerasFileWholeAndPrintsTheSpread)
{
    const std::string trace = dir + "/trace.jsonl";
    ASSERT_TRUE(qksim::CommandTrace::Open(trace));
    setenv("QKCAM_TRACE", trace.c_str(), 1);
    ChildRun run = Qkcam({"shoot", "--all", "--download", dir, "--remove"});
    unsetenv("QKCAM_TRACE");
    qksim::CommandTrace::Close();
    EXPECT_EQ(run.status, 0) << run.err;
    std::smatch spread;
    ASSERT_TRUE(std::regex_search(run.out, spread, std::regex("spread: ([0-9]+) us over 3 cameras\n"))) << run.out;
    EXPECT_LT(std::stoi(spread[1]), 20000);
    for (int i = 0; i < 3; ++i) {
        const std::string serial = "S" + std::to_string(i + 1);
        std::smatch line;
        ASSERT_TRUE(std::regex_search(run.out, line, std::regex(serial + "\t(IMG_[0-9]{4}\\.JPG)\t([0-9]+)\t(.*)\n")));
        EXPECT_EQ(line[3].str(), dir + "/" + serial + "_" + line[1].str());
        const std::vector<uint8_t> bytes = ReadFile(line[3]);
        EXPECT_EQ(std::to_string(bytes.size()), line[2].str());
        EXPECT_EQ(bytes[0], 0xFF); // a JPEG, whole
        EXPECT_EQ(bytes[bytes.size() - 1], 0xD9);
        // Removed from the card only once downloaded.
        EXPECT_EQ(cameras[i]->Card().Find(line[1]), 0u);
    }
}

// Pulled out once its shoot command arrived: that camera fails, the others finish.
TEST_F(QkcamTest, CameraPulledOutDuringShootAllFailsAloneAndTheOthersFilesAreComplete)
{
    std::thread puller([this] {
        for (int wait = 0; wait < 20000; ++wait) {
            for (const auto& c : cameras[1]->ReceivedCommands())
                if (c.code == 0x9999 && c.params.size() > 0 && c.params[0] == PTP_QKM_Shoot) {
                    cameras[1]->Unplug();
                    return;
                }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ChildRun run = Qkcam({"shoot", "--all", "--download", dir});
    puller.join();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("qkcam: camera S2: PTPShoot_Normal failed: QK_ERROR"), std::string::npos) << run.err;
    for (int i : {0, 2}) {
        const std::string serial = "S" + std::to_string(i + 1);
        std::smatch line;
        ASSERT_TRUE(std::regex_search(run.out, line, std::regex(serial + "\t(IMG_[0-9]{4}\\.JPG)\t[0-9]+\t(.*)\n")))
            << run.out;
        const uint32_t handle = cameras[i]->Card().Find(line[1]);
        ASSERT_NE(handle, 0u);
        EXPECT_EQ(ReadFile(line[2]), cameras[i]->Card().Content(handle));
    }
    EXPECT_EQ(run.out.find("S2\t"), std::string::npos);
}

TEST_F(QkcamTest, FilesDownloadRemoveCleanAndPreview)
{
    for (int n = 10; n < 13; ++n)
        cameras[0]->Card().AddFile(qksim::CameraCard::FileName("IMG_", n, ".JPG"), qktest::Pattern(5000 + n, n));
    // The catalogue holds pictures and videos only.
    std::vector<std::string> listed;
    for (const json& file : json::parse(Qkcam({"files", "-c", "S1", "--json"}).out))
        listed.push_back(file["name"]);
    EXPECT_EQ(listed, (std::vector<std::string>{"IMG_0001.JPG", "MVI_0002.MOV", "IMG_0004.JPG", "IMG_0010.JPG",
                                                "IMG_0011.JPG", "IMG_0012.JPG"}));

    ChildRun run = Qkcam({"download", "-c", "S1", "img_0011.jpg", "-o", dir});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, dir + "/IMG_0011.JPG\n");
    EXPECT_EQ(ReadFile(dir + "/IMG_0011.JPG"), qktest::Pattern(5011, 11));

    ASSERT_EQ(Qkcam({"rm", "-c", "S1", "IMG_0010.JPG", "IMG_0004.JPG"}).status, 0);
    std::vector<std::string> left = CardNames(0);
    EXPECT_EQ(left, (std::vector<std::string>{"IMG_0001.JPG", "MVI_0002.MOV", "IMG_0003.CR2", "IMG_0011.JPG",
                                              "IMG_0012.JPG"}));
    ASSERT_EQ(Qkcam({"clean", "-c", "S1"}).status, 0);
    EXPECT_EQ(CardNames(0), (std::vector<std::string>{"IMG_0001.JPG", "MVI_0002.MOV", "IMG_0003.CR2"}));

    run = Qkcam({"preview", "-c", "S3", "--frames", "2", "-o", dir});
    ASSERT_EQ(run.status, 0) << run.err;
    for (const char* name : {"/preview_S3_0001.bmp", "/preview_S3_0002.bmp"}) {
        const std::vector<uint8_t> bmp = ReadFile(dir + name);
        ASSERT_GT(bmp.size(), 54u);
        EXPECT_EQ(bmp[0], 'B');
        EXPECT_EQ(bmp[1], 'M');
        // The size field of the file header is the file's size.
        EXPECT_EQ(bmp[2] | bmp[3] << 8 | bmp[4] << 16 | bmp[5] << 24, static_cast<int>(bmp.size()));
    }
}

} // namespace
