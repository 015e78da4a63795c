#pragma once
// One attached camera. Made only by DevicePTP::build (or, for a host's
// derived class, through std::make_shared) and always owned by a shared_ptr.
// A host may override the virtual hooks.

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

// Events raised by bits of the camera's event word.
enum CameraEvent {
    SHOOT_FINISHED = 0,
    ZOOM_FINISHED = 1,
};

class DevicePTP : public std::enable_shared_from_this<DevicePTP>, public LoggerClient {
public:
    static std::shared_ptr<DevicePTP> build(std::shared_ptr<UsbLib> usbLib, std::wstring devicePath);
    ~DevicePTP() override;
    DevicePTP(const DevicePTP&) = delete;
    DevicePTP& operator=(const DevicePTP&) = delete;

    // Hooks, in slot order after the destructor.
    virtual void PostprocessPreview(int width, int height, unsigned char* pixels, int rowPadding);
    virtual void OnNewPreviewFrame();
    virtual void RegisterPointer(void* pointer, std::function<void(void*)> release);
    virtual bool IsVoltageLogging();
    virtual void OnZoomChanged();
    virtual void OnPropertyChanged(int property);
    virtual QKResult GuardCameraState();
    virtual QKResult GuardOpenSession();
    virtual QKResult GuardAll();
    virtual QKResult DoSetProperty(QKProp property);
    virtual void OnPropertyListChanged();
    virtual void OnShootCompleted(QKFileInfo file);
    virtual void TemporaryStopPreview(bool stop);
    virtual QKResult SetPreShootProperty();
    virtual bool IsMemLogging();
    virtual void OnFocusChanged();
    // Gives back memory that an operation handed out; callable from any thread.
    virtual void FreePointer(void* pointer);

    // Identity.
    QKResult Init();
    QKResult QKMLoadSerialNumber();
    std::wstring GetSerialNumber();
    std::wstring GetCameraName();
    std::wstring GetCameraId();

    // The vendor channel.
    QKResult PTPQKMGet(int subCommand, int wordCount, std::vector<int>* words);
    QKResult PTPOpenSession();
    // Polls until the camera reports record mode; no limit of its own.
    QKResult PTPWaitForRecMode();
    // The same, giving up with QK_NOT_READY once `limit` has passed.
    QKResult PTPWaitForRecMode(std::chrono::milliseconds limit);
    QKResult PTPPowerDown();
    QKResult PTPReset();
    QKResult EnableKbdAndLcd();
    QKResult EnableLcd();
    // Reads the module's version; with `requiredVersion`, QK_OLD_MODULE when older.
    QKResult QKMLoadVersion(const char* requiredVersion);
    // The version QKMLoadVersion read; empty before. Any thread.
    std::wstring GetModuleVersion();
    QKResult PTPManualFocusEnable(bool on);
    QKResult PTPLoadEvents();

    // Live preview: loads decode into the buffer not lent; GetPreviewFrame
    // lends the newest picture, a BMP file, until FreePointer.
    QKResult PTPGetVideoSettings(VideoSettings* settings);
    QKResult PTPLoadPreviewFrame();
    QKResult GetPreviewFrame(void** frame, int* size);

    // Lens: zoom and manual focus.
    QKResult GetMaximumZoom(int* zoom);
    QKResult GetZoom(int* zoom);
    QKResult UpdateZoom();
    void SendZoomChanged();
    // Builds the zoom chain; nothing reaches the camera until ContProc::run.
    ContProc* PTPSetZoom(int zoom);
    QKResult PTPManualFocusSet(int focus, int* reached);
    QKResult PTPManualFocusGetParams(int* first, int* position);
    QKResult UpdateFocusPos();
    QKResult GetFocus(int* focus);
    void SendFocusChanged();
    int GetFocusWithShift(int zoom, int focus, int shift);
    QKResult FocusShift(int shift);

    // Property loading.
    QKResult InitialLoadProperties();
    QKResult PTPReadPropety(int caseNumber, int* value);
    QKResult LoadFlashPowerProp(const ProperyConfig& config);
    QKResult ReadCameraMode();
    QKResult ReadBatteryLevel(bool initial);
    int ReadVoltage();
    void LogVoltage(const char* tag);
    QKResult SetDefaultSDKFocus();
    QKResult PTPGetZoom(int* zoom);
    QKResult GetCamFlags(bool* bit0, bool* bit1, bool* bit2);
    QKResult LoadCameraFlags();

    // Property writing.
    QKResult SetPropertyData(int property, int value);
    QKResult SetPropertyDataByName(int property, std::string valueName);
    // Writes the cached value of one property to the camera.
    QKResult PTPSetProperty(QKProp property);

    // Property queries; arrays go back through FreePointer.
    QKResult GetPropertyData(int property, int* value);
    QKResult GetPropertyList(int** properties, int* count);
    QKResult GetPropertyDesc(int property, QKProp_Desc** desc);

    // Camera files: the card's catalogue, download and removal, the
    // camera's own log and memory figures. Arrays go back through FreePointer.
    QKResult PTPGetStorageId(unsigned int* storage);
    QKResult PTPGetObjectHandles(std::vector<unsigned int>* handles);
    QKResult PTPGetFilesInfo(std::vector<QKFileInfo>* files);
    // Rebuilds the catalogue and finds the file that is new since the last rebuild.
    QKResult PTPUpdateObjectsInfo();
    QKResult GetFileList(QKFileInfo** files, int* count);
    // Negative ids are direct-transfer files held in memory.
    QKResult PTPDownloadFile(int id, std::string path);
    QKResult PTPDownloadFile(int id, std::string path, std::function<void(int)> onDownloaded);
    QKResult PTPRemoveFile(int id);
    // Removes IMG_nnnn files numbered 10 and up.
    QKResult PTPCleanCard();
    QKResult PTPDownloadCameraLog();
    void PTPDebugLogMemory(const char* tag);

    // How long a zoom or shot chain waits for its camera before it fails
    // (30 s unless set); slow cameras may need more. Any thread.
    void SetChainTimeLimit(std::chrono::milliseconds limit);
    std::chrono::milliseconds GetChainTimeLimit() const;

    // Capture: chains for ContProc::run, and video.
    ContProc* PTPShoot();
    ContProc* PTPShoot_Normal(std::function<void(QKFileInfo)> onCompleted);
    ContProc* PTPShoot_Direct(std::function<void(QKFileInfo)> onCompleted);
    // The same shots with a gate: `beforeCommand` runs on the chain's thread
    // once everything before the shoot command is done (hooks, the listing
    // the new file is found against) and the command goes out when it
    // returns; a chain that fails earlier never calls it. Many cameras shoot
    // at one instant this way.
    ContProc* PTPShoot_NormalGated(std::function<void(QKFileInfo)> onCompleted,
                                   std::function<void()> beforeCommand);
    ContProc* PTPShoot_DirectGated(std::function<void(QKFileInfo)> onCompleted,
                                   std::function<void()> beforeCommand);
    void DebugShootDirectEvents();
    QKResult PTPStartVideo();
    QKResult PTPStopVideo(QKFileInfo* file);
    ContProc* PTPUpdateAeAf();

    // PTP transactions.
    static std::vector<unsigned int> PTPmkParams();
    static std::vector<unsigned int> PTPmkParams(unsigned int p1);
    static std::vector<unsigned int> PTPmkParams(unsigned int p1, unsigned int p2);
    static std::vector<unsigned int> PTPmkParams(unsigned int p1, unsigned int p2, unsigned int p3);

    // One operation with the retry rule. `result`, `responseParams` and
    // `chunkCallback` may each be null; with a data phase exactly one of
    // `result` (preferred) and `chunkCallback` takes the data.
    bool PtpTransaction(unsigned short code, std::vector<unsigned int> params, TRANSACTION_TYPE type,
                        DataLen* result, std::vector<unsigned int>* responseParams,
                        std::function<void(DataLen*)>* chunkCallback);
    // Frees a buffer that a transaction filled.
    static void FreePtpTransactionGetBuffer(DataLen& buffer);

protected:
    DevicePTP(std::shared_ptr<UsbLib> usbLib, std::wstring devicePath);

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
};
