// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// Steps on one camera that every front-end needs in the same words:
/// properties and values by their names, the values a property may take
/// now, the card's catalogue, a download that leaves nothing half written,
/// and a shot run to its end.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "../DevicePTP/DevicePTP.h"
#include "../DevicePTP/QKFileInfo.h"
#include "../DevicePTP/QKResult.h"

/// Steps on one camera shared by the rig's front-ends.
namespace qkrig {

/// The property with that display name (any case) or number; none if unknown.
std::optional<int> FindProperty(const std::string& text);
/// The value of `property` with that name (any case) or number; none if unknown.
std::optional<int> FindValue(int property, const std::string& text);
/// The display name of a property, or its number when it has none.
std::string PropertyName(int property);
/// The name of a property's value, or the number when it has none.
std::string ValueName(int property, int value);
/// Names of every property the tables know.
std::vector<std::string> AllPropertyNames();
/// Names of every value the tables know for `property`.
std::vector<std::string> AllValueNames(int property);
/// `names` joined with ", ".
std::string JoinNames(const std::vector<std::string>& names);
/// The name of a result ("QK_NOT_READY").
const char* ResultName(QKResult result);

/// The properties the camera has; empty when the list cannot be read.
std::vector<int> CameraProperties(DevicePTP& device);
/// The values `property` may take now, under the camera's constraints.
std::vector<int> AllowedValues(DevicePTP& device, int property);
/// Sets a property after checking that the value is allowed now; a value
/// barred by the constraints is QK_UNSUPPORTED_VALUE with nothing sent.
QKResult SetAllowedValue(DevicePTP& device, int property, int value);

/// Moves the zoom to `position` and waits for the lens; a position outside
/// 0 to the model's longest is QK_UNSUPPORTED_VALUE (logged), nothing sent.
/// `stop`, when given, is asked between the chain's steps.
QKResult ZoomTo(DevicePTP& device, int position, const std::function<bool()>& stop = nullptr);

/// Whether a file name from the camera can stand as one local file name:
/// not empty, not "." or "..", no '/' (logged when it can't), so that a
/// camera can't make a host write outside the folder it chose.
bool IsPlainFileName(const std::string& name);

/// The card's catalogue, read afresh from the camera.
QKResult Catalogue(DevicePTP& device, std::vector<QKFileInfo>* files);
/// Downloads file `id` to `path` through a neighbour "<path>.part", renamed
/// into place once whole: on failure nothing new is left behind, and a file
/// that was there before stays as it was.
QKResult DownloadTo(DevicePTP& device, int id, const std::string& path);

/// The whole file `id` into `bytes`, through an anonymous memory file
/// (nothing touches a disk).
QKResult ReadFile(DevicePTP& device, int id, std::string* bytes);
/// Loads a preview frame and copies the whole BMP file out, giving the
/// camera's buffer straight back.
QKResult PreviewBmp(DevicePTP& device, std::vector<unsigned char>* bmp);
/// Stops the video, the card's catalogue read first so that the new file is
/// told from the old ones, and gives the video file.
QKResult StopVideo(DevicePTP& device, QKFileInfo* file);

/// Runs a normal (card) or direct (memory) shot to its end and gives the new
/// picture. `stop`, when given, is asked between the chain's steps.
QKResult ShootOne(DevicePTP& device, bool direct, QKFileInfo* file, const std::function<bool()>& stop = nullptr);

} // namespace qkrig
