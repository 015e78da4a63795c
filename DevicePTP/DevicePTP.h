// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// One attached camera, and all it does.

#include <chrono>
#include <climits>
#include <cstdint>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Ema.h"
#include "PreviewData.h"
#include "PtpContainer.h"
#include "QKPropDesc.h"
#include "QKFileInfo.h"
#include "QKResult.h"
#include "../log/Log.h"
#include "../models/CameraDB.h"
#include "../models/PropertyDB.h"
#include "../usb/UsbLib.h"

class ContProc;

/// Events raised by bits of the camera's event word.
enum CameraEvent {
    SHOOT_FINISHED = 0, ///< the shot is on the card
    ZOOM_FINISHED = 1,  ///< the lens stopped
};

/// One attached camera. Made only by DevicePTP::build (or, for a host's
/// derived class, through std::make_shared) and always owned by a
/// shared_ptr; destroying it closes the camera and frees what it still holds.
///
/// Threads: operations may come from any thread; each transaction with the
/// camera is whole before the next starts, and the cached state (properties,
/// zoom, focus, catalogue) has its own lock. Zoom and shot chains share the
/// camera's event flags: run one chain of a camera at a time. Hooks run on the thread of the
/// operation that raises them. Arrays and pictures an operation hands out
/// belong to the host until it gives them back with FreePointer.
class DevicePTP : public std::enable_shared_from_this<DevicePTP>, public LoggerClient {
public:
    /// A camera object for the camera at `devicePath` on `usbLib`; nothing
    /// is sent to the camera until Init.
    static std::shared_ptr<DevicePTP> build(std::shared_ptr<UsbLib> usbLib, std::wstring devicePath);
    /// Closes the camera and frees the direct-transfer files and preview pictures.
    ~DevicePTP() override;
    DevicePTP(const DevicePTP&) = delete;
    DevicePTP& operator=(const DevicePTP&) = delete;

    /// @name Hooks
    /// A host overrides these in a derived class; the defaults do nothing
    /// (or log the event). They run on the thread of the operation that raises them.
    /// @{

    /// A new preview picture's pixels (BGR, bottom row first), before its
    /// BMP headers are written; the hook may change them in place.
    virtual void PostprocessPreview(int width, int height, unsigned char* pixels, int rowPadding);
    /// A new preview picture is ready for GetPreviewFrame.
    virtual void OnNewPreviewFrame();
    /// Records memory handed to the host and how to free it; FreePointer releases it.
    virtual void RegisterPointer(void* pointer, std::function<void(void*)> release);
    /// Whether the battery voltage is logged around each step of a shot (default: no).
    virtual bool IsVoltageLogging();
    /// The zoom position changed (see GetZoom).
    virtual void OnZoomChanged();
    /// A property's value changed, on the camera or by a dependent rule.
    virtual void OnPropertyChanged(int property);
    /// Asked before a property is set or the focus shifted; anything but
    /// QK_OK refuses and is returned.
    virtual QKResult GuardCameraState();
    /// A host's own check that a session is open, for its derived class to
    /// call; the engine itself does not call it. QK_OK by default.
    virtual QKResult GuardOpenSession();
    /// Asked before a property's cached value is handed out; anything but
    /// QK_OK refuses and is returned.
    virtual QKResult GuardAll();
    /// Writes one property's cached value to the camera; the default is PTPSetProperty.
    virtual QKResult DoSetProperty(QKProp property);
    /// The set of properties or of their allowed values changed.
    virtual void OnPropertyListChanged();
    /// PTPShoot's picture is on the card: `file` names it.
    virtual void OnShootCompleted(QKFileInfo file);
    /// A shot asks the host to pause its preview (true) and to go on (false).
    virtual void TemporaryStopPreview(bool stop);
    /// Runs before every shot; anything but QK_OK stops the shot.
    virtual QKResult SetPreShootProperty();
    /// Whether the camera's memory figures are logged around shots.
    virtual bool IsMemLogging();
    /// The manual focus position changed (see GetFocus).
    virtual void OnFocusChanged();
    /// Gives back memory that an operation handed out (GetPropertyList,
    /// GetPropertyDesc, GetFileList, GetPreviewFrame); an unknown pointer is
    /// logged and left alone. Any thread.
    virtual void FreePointer(void* pointer);
    /// @}

    /// @name Identity
    /// @{

    /// Opens the camera and recognises its model from the USB product string.
    /// QK_ERROR when it cannot be opened (the transport logs why).
    QKResult Init();
    /// Reads the serial number from the camera (GetSerialNumber then has it).
    QKResult QKMLoadSerialNumber();
    /// The serial number read; empty before QKMLoadSerialNumber.
    std::wstring GetSerialNumber();
    /// The USB product string; empty before Init.
    std::wstring GetCameraName();
    /// The model's name, as the model table has it ("SX160"); empty when unrecognised.
    std::wstring GetCameraId();
    /// @}

    /// @name The vendor channel
    /// @{

    /// One vendor sub-command with a data phase: the first `wordCount` words
    /// of the reply into `*words`, which is written only on success.
    QKResult PTPQKMGet(int subCommand, int wordCount, std::vector<int>* words);
    /// Opens the PTP session; transaction ids start again at 0.
    QKResult PTPOpenSession();
    /// Polls until the camera reports record mode; no limit of its own.
    QKResult PTPWaitForRecMode();
    /// The same, giving up with QK_NOT_READY (logged) once `limit` has passed.
    QKResult PTPWaitForRecMode(std::chrono::milliseconds limit);
    /// Switches the camera off.
    QKResult PTPPowerDown();
    /// Resets the camera module.
    QKResult PTPReset();
    /// Enables the camera's keys and screen.
    QKResult EnableKbdAndLcd();
    /// Enables the camera's screen.
    QKResult EnableLcd();
    /// Reads the module's version; with `requiredVersion`, QK_OLD_MODULE (logged) when older.
    QKResult QKMLoadVersion(const char* requiredVersion);
    /// The version QKMLoadVersion read; empty before. Any thread.
    std::wstring GetModuleVersion();
    /// Manual focus mode on or off.
    QKResult PTPManualFocusEnable(bool on);
    /// Reads the camera's event word and notes the shot and zoom finish events.
    QKResult PTPLoadEvents();
    /// @}

    /// @name Live preview
    /// Loads decode into the buffer not lent; GetPreviewFrame lends the newest picture.
    /// @{

    /// Reads the camera's preview settings record into `*settings`.
    QKResult PTPGetVideoSettings(VideoSettings* settings);
    /// Fetches and decodes one frame into the buffer not lent to the host;
    /// a refused frame keeps the last good picture.
    QKResult PTPLoadPreviewFrame();
    /// Lends the newest picture, a whole BMP file of `*size` bytes, until
    /// FreePointer(*frame); QK_NOT_READY before the first load or while one
    /// is lent.
    QKResult GetPreviewFrame(void** frame, int* size);
    /// @}

    /// @name Lens: zoom and manual focus
    /// @{

    /// The longest zoom position of the model (0 is the widest).
    QKResult GetMaximumZoom(int* zoom);
    /// The zoom position last read or reached.
    QKResult GetZoom(int* zoom);
    /// Reads the zoom position from the camera; OnZoomChanged when it moved.
    QKResult UpdateZoom();
    /// Raises OnZoomChanged if the position differs from the one last announced.
    void SendZoomChanged();
    /// Builds the chain that moves the zoom to `zoom` (kept within the
    /// model's range) and waits for the lens; nothing reaches the camera
    /// until ContProc::run, which frees the chain.
    ContProc* PTPSetZoom(int zoom);
    /// Moves the manual focus to `focus`; `*reached` is where it stopped.
    QKResult PTPManualFocusSet(int focus, int* reached);
    /// The focus table's first position and the present one.
    QKResult PTPManualFocusGetParams(int* first, int* position);
    /// Reads the focus position; OnFocusChanged when it moved.
    QKResult UpdateFocusPos();
    /// The focus position last read or reached.
    QKResult GetFocus(int* focus);
    /// Raises OnFocusChanged if the position differs from the one last announced.
    void SendFocusChanged();
    /// The position `shift` steps of the model's focus table away from
    /// `focus` at zoom `zoom`, kept within the row.
    int GetFocusWithShift(int zoom, int focus, int shift);
    /// Moves the manual focus `shift` steps nearer (negative: farther).
    QKResult FocusShift(int shift);
    /// @}

    /// @name Property loading
    /// @{

    /// Reads every property of the model from the camera into the cache,
    /// with the battery and the zoom.
    QKResult InitialLoadProperties();
    /// Reads one property case's raw value.
    QKResult PTPReadPropety(int caseNumber, int* value);
    /// Reads the flash power, which lives in two cases.
    QKResult LoadFlashPowerProp(const ProperyConfig& config);
    /// Reads the shooting mode; a change is taken over and announced.
    QKResult ReadCameraMode();
    /// Reads the battery and files it in a band; `initial` starts the smoothing.
    QKResult ReadBatteryLevel(bool initial);
    /// The battery voltage in mV, 0 when the model has no battery reading.
    int ReadVoltage();
    /// Logs the voltage with `tag` when IsVoltageLogging.
    void LogVoltage(const char* tag);
    /// Puts the manual-focus property in its default state.
    QKResult SetDefaultSDKFocus();
    /// Reads the zoom position from the camera, kept within the model's range.
    QKResult PTPGetZoom(int* zoom);
    /// Reads the camera's flag word's three bits.
    QKResult GetCamFlags(bool* bit0, bool* bit1, bool* bit2);
    /// Reads the flags and adapts the model record to them.
    QKResult LoadCameraFlags();
    /// @}

    /// @name Property writing
    /// @{

    /// Sets a property to `value` (a QKProp_* number) in the cache and on
    /// the camera, with the changes its rules bring; QK_UNKNOWN_PROPERTY or
    /// QK_UNSUPPORTED_VALUE (logged) for what the model does not offer now.
    QKResult SetPropertyData(int property, int value);
    /// The same with the value's display name.
    QKResult SetPropertyDataByName(int property, std::string valueName);
    /// Writes the cached value of one property to the camera.
    QKResult PTPSetProperty(QKProp property);
    /// @}

    /// @name Property queries
    /// Arrays go back through FreePointer.
    /// @{

    /// The cached value of a property.
    QKResult GetPropertyData(int property, int* value);
    /// The model's properties as an array of `*count` QKProp numbers.
    QKResult GetPropertyList(int** properties, int* count);
    /// The values a property can take now, under the model's rules.
    QKResult GetPropertyDesc(int property, QKProp_Desc** desc);
    /// @}

    /// @name Camera files
    /// The card's catalogue, download and removal, the camera's own log and
    /// memory figures. Arrays go back through FreePointer.
    /// @{

    /// The id of the camera's storage.
    QKResult PTPGetStorageId(unsigned int* storage);
    /// The handles of every object on the card.
    QKResult PTPGetObjectHandles(std::vector<unsigned int>* handles);
    /// Name and size of every picture and video on the card.
    QKResult PTPGetFilesInfo(std::vector<QKFileInfo>* files);
    /// Rebuilds the catalogue and finds the file that is new since the last rebuild.
    QKResult PTPUpdateObjectsInfo();
    /// The catalogue as an array of `*count` files.
    QKResult GetFileList(QKFileInfo** files, int* count);
    /// Writes file `id` to `path`; negative ids are direct-transfer files
    /// held in memory, which are freed once written.
    QKResult PTPDownloadFile(int id, std::string path);
    /// The same, calling `onDownloaded(id)` once the file is written.
    QKResult PTPDownloadFile(int id, std::string path, std::function<void(int)> onDownloaded);
    /// Removes file `id` from the card, or a direct-transfer file from memory.
    QKResult PTPRemoveFile(int id);
    /// Removes IMG_nnnn files numbered 10 and up.
    QKResult PTPCleanCard();
    /// Has the camera write its own log and copies it into the main log.
    QKResult PTPDownloadCameraLog();
    /// Logs the camera's memory figures with `tag` when IsMemLogging.
    void PTPDebugLogMemory(const char* tag);
    /// @}

    /// @name Capture
    /// Chains for ContProc::run, and video.
    /// @{

    /// How long a zoom or shot chain waits for its camera before it fails
    /// (30 s unless set); slow cameras may need more. Any thread.
    void SetChainTimeLimit(std::chrono::milliseconds limit);
    /// The limit set.
    std::chrono::milliseconds GetChainTimeLimit() const;
    /// A normal shot whose file goes to OnShootCompleted.
    ContProc* PTPShoot();
    /// A shot onto the card; `onCompleted` gets the new file once the
    /// camera lists it. Refused while a video records.
    ContProc* PTPShoot_Normal(std::function<void(QKFileInfo)> onCompleted);
    /// A shot straight into memory: the picture comes over USB in pieces
    /// and is kept as a direct-transfer file with a negative id, which
    /// `onCompleted` gets.
    ContProc* PTPShoot_Direct(std::function<void(QKFileInfo)> onCompleted);
    /// The same shots with a gate: `beforeCommand` runs on the chain's thread
    /// once everything before the shoot command is done (hooks, the listing
    /// the new file is found against) and the command goes out when it
    /// returns; a chain that fails earlier never calls it. Many cameras shoot
    /// at one instant this way.
    ContProc* PTPShoot_NormalGated(std::function<void(QKFileInfo)> onCompleted,
                                   std::function<void()> beforeCommand);
    /// The direct shot with a gate, as PTPShoot_NormalGated.
    ContProc* PTPShoot_DirectGated(std::function<void(QKFileInfo)> onCompleted,
                                   std::function<void()> beforeCommand);
    /// Logs the direct-shot event bits the camera reports now.
    void DebugShootDirectEvents();
    /// Starts a video; shots are refused until it stops.
    QKResult PTPStartVideo();
    /// Stops the video and finds its file on the card.
    QKResult PTPStopVideo(QKFileInfo* file);
    /// A chain that has the camera measure exposure and focus.
    ContProc* PTPUpdateAeAf();
    /// @}

    /// @name PTP transactions
    /// @{

    /// Parameter lists for PtpTransaction, of 0 to 3 words.
    static std::vector<unsigned int> PTPmkParams();
    /// One parameter.
    static std::vector<unsigned int> PTPmkParams(unsigned int p1);
    /// Two parameters.
    static std::vector<unsigned int> PTPmkParams(unsigned int p1, unsigned int p2);
    /// Three parameters.
    static std::vector<unsigned int> PTPmkParams(unsigned int p1, unsigned int p2, unsigned int p3);

    /// One operation with the retry rule. `result`, `responseParams` and
    /// `chunkCallback` may each be null; with a data phase exactly one of
    /// `result` (preferred) and `chunkCallback` takes the data. The data in
    /// `result` belongs to the caller, who frees it with
    /// FreePtpTransactionGetBuffer. False (logged) on any failure.
    bool PtpTransaction(unsigned short code, std::vector<unsigned int> params, TRANSACTION_TYPE type,
                        DataLen* result, std::vector<unsigned int>* responseParams,
                        std::function<void(DataLen*)>* chunkCallback);
    /// Frees a buffer that a transaction filled, and empties it.
    static void FreePtpTransactionGetBuffer(DataLen& buffer);
    /// @}

protected:
    /// Only for a host's derived class, made with std::make_shared; the
    /// transport and the path as DevicePTP::build takes them.
    DevicePTP(std::shared_ptr<UsbLib> usbLib, std::wstring devicePath);
    /// @cond INTERNAL

    bool PtpTransaction_(unsigned short code, std::vector<unsigned int> params, TRANSACTION_TYPE type,
                         bool* generalError, DataLen* result,
                         std::vector<unsigned int>* responseParams,
                         std::function<void(DataLen*)>* chunkCallback);
    bool PtpDataPhase(unsigned short code, bool* generalError, DataLen* result,
                      std::function<void(DataLen*)>* chunkCallback);
    bool PtpReadContainer(_PTPUSBBulkContainer* container);
    // Reads a container header of the transaction in flight, skipping (and
    // logging) whole containers that belong to earlier transactions.
    bool ReadOwnHeader(_PTPUSBBulkContainer* header);
    // Reads `size` bytes of data and throws them away.
    bool DrainData(unsigned int size);
    // After a refused data header: drains the data and the response.
    void SkipRestOfTransaction(unsigned int dataLength);
    // Allocates `size` bytes and fills them from the data phase; on failure
    // logs the stage and frees what it took.
    bool ReadDataBlock(unsigned int size, const char* stage, DataLen* block);
    // Live preview: fetches and decodes one frame into `frame`, under previewMutex.
    QKResult PTPGetPreviewFrame(DataLen* frame);
    void FreePreviewFrames();
    QKResult PTPSetPropCase(int caseNumber, int rawValue);
    std::vector<std::pair<QKProp, int>> GetPropertyValueList_();
    std::vector<QKProp> GetPropertyList_();
    // The one vendor command without a data phase.
    QKResult QKMCommand(unsigned int subCommand, const char* failure);
    // The first `count` words of a reply; false (logged) when it is shorter.
    // One vendor transaction with a data phase, of which the first `count`
    // words are taken; `*words` is written only on success.
    bool FetchWords(std::vector<unsigned int> params, unsigned int count, std::vector<int>* words,
                    const char* what);
    static bool ReplyWords(const DataLen& reply, unsigned int count, std::vector<int>* words,
                           const char* what);
    // The model record under stateMutex: LoadCameraFlags and Init change it.
    bool HasProperty_(QKProp property);
    int MaxZoom_();
    bool UsbWrite(DataLen* buffer);
    bool UsbReadExactly(DataLen* buffer);

    std::shared_ptr<UsbLib> usbLib;
    void* deviceHandle = nullptr;
    std::wstring devicePath;
    std::wstring deviceName;
    CameraConfig cameraConfig;
    std::wstring serialNumber;
    std::map<void*, std::function<void(void*)>> registeredPointers;
    std::mutex registeredPointersMutex; // FreePointer may come from any thread

    unsigned int nextTransactionId = 0; // guarded by transactionMutex
    unsigned int transactionInFlight = 0; // guarded by transactionMutex
    std::mutex transactionMutex;        // innermost: one whole attempt on the wire

    PreviewData previewData; // live preview

    struct {
        std::map<QKProp, int> propertyValues;
        int currentZoom = 0;
        int lastSentZoom = -1;
        // Lens: no camera reports INT_MIN, so the first real position is announced.
        int currentFocus = 0;
        int lastSentFocus = INT_MIN;
        std::recursive_mutex stateMutex;
        std::shared_ptr<ema> batteryFilter;
    } state;

    bool camFlagBit0 = false;
    bool camFlagBit2 = false;

    // Lens: the steps of the zoom chain, and how long it waits for the finish event.
    void ZoomCommand_(ContProc* proc, int zoom, int64_t* wait, QKResult* result, bool* more);
    void ZoomAwaitFinish_(ContProc* proc, int zoom, bool manualFocusForZoom,
                          std::chrono::steady_clock::time_point deadline, int64_t* wait,
                          QKResult* result, bool* more);
    void ZoomTakeOver_(int zoom, bool manualFocusForZoom, QKResult* result, bool* more);
    // How long a zoom or shot chain waits for the camera to finish.
    std::atomic<int64_t> chainTimeLimitMs{30000};
    std::chrono::steady_clock::time_point ChainDeadline() const;

    struct {
        std::vector<QKFileInfo> objects;
        std::mutex objectsMutex;
        int latestFileId = -1;
    } catalogue;

    // Camera files and capture: the parts of downloads and shots.
    QKResult DownloadDirectFile_(int id, const std::string& path);
    QKResult DownloadCardFile_(int id, const std::string& path);
    QKResult RemoveDirectFile_(int id);
    void ShootNormalStart_(ContProc* proc, std::function<void(QKFileInfo)> onCompleted,
                           const std::function<void()>& beforeCommand, int64_t* wait, QKResult* result,
                           bool* more);
    void ShootNormalAwait_(const std::function<void(QKFileInfo)>& onCompleted,
                           std::chrono::steady_clock::time_point deadline, int64_t* wait,
                           QKResult* result, bool* more);
    QKResult FindShotFile_(QKFileInfo* file);
    void ShootDirectStart_(ContProc* proc, std::function<void(QKFileInfo)> onCompleted,
                           const std::function<void()>& beforeCommand, int64_t* wait, QKResult* result,
                           bool* more);
    void ShootDirectAwait_(const std::function<void(QKFileInfo)>& onCompleted,
                           std::chrono::steady_clock::time_point deadline, int64_t* wait,
                           QKResult* result, bool* more);
    QKResult FetchDirectPicture_(std::chrono::steady_clock::time_point deadline,
                                 std::list<DataLen>* chunks, unsigned int* totalSize);

    struct {
        int nextDirectFileId = -100; // ids go down from here and are never reused
        std::map<int, std::list<DataLen>> directFiles; // owns the chunk arrays
        std::recursive_mutex directFilesMutex;
    } direct;

    // Set while a video records; shooting chains refuse to start then.
    std::atomic<bool> videoRecording{false};

    std::map<CameraEvent, bool> cameraEvents{{SHOOT_FINISHED, false}, {ZOOM_FINISHED, false}};
    std::wstring moduleVersion;

    bool memLogging = false;
    /// @endcond
};
