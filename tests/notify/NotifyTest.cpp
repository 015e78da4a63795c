// SPDX-License-Identifier: MIT
// Device-change notification: when the polling thread runs, how often it
// tells, a receiver that goes away, how the thread ends, and a camera pulled
// out in the middle of an operation.

#include <dirent.h>

#include <sstream>
#include <thread>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "tests/common/TestLog.h"
#include "tests/notify/NotifyReceiver.h"

namespace {

using namespace notifytest;
using qksim::PtpCommand;
using qksim::PtpReply;
using qktest::LogMark;
using qktest::Pattern;
using Clock = std::chrono::steady_clock;

int ThreadCount()
{
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count;
}

// The count once it reaches `expected`, or after half a second: a joined
// thread may linger in /proc a moment, and other libraries' helper threads
// come and go under load.
int ThreadCountSettlingAt(int expected)
{
    int count = ThreadCount();
    for (int i = 0; i < 50 && count != expected; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        count = ThreadCount();
    }
    return count;
}

// How long dropping the last reference to the transport takes.
Clock::duration TimeToDestroy(std::shared_ptr<UsbLib>& usb)
{
    const auto start = Clock::now();
    usb.reset();
    return Clock::now() - start;
}

// The lines of `log` that hold one of the texts, each replaced by its type and the text.
std::vector<std::string> LinesOf(const std::string& log, const std::vector<std::string>& texts)
{
    std::vector<std::string> found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);)
        for (const std::string& text : texts)
            if (line.find(text) != std::string::npos)
                found.push_back(line.substr(0, 3) + " " + text);
    return found;
}

TEST_F(NotifyTest, ThreadRunsOnlyForALiveReceiverAndEndsAtOnceInOrder)
{
    AddCamera("SX160", "QKS0001");
    auto calls = std::make_shared<Calls>();
    LogMark mark;
    // libusb may run threads of its own while a context lives: compare
    // transports that are alive.
    std::shared_ptr<UsbLib> probe = UsbLib_libusb::build(UsbLib::EmptyNotify);
    const int baseline = ThreadCount();
    std::weak_ptr<IUsbLib_Notify> gone = std::make_shared<Receiver>(calls);
    std::shared_ptr<UsbLib> orphan = UsbLib_libusb::build(gone);
    EXPECT_EQ(ThreadCount(), baseline);
    EXPECT_LT(TimeToDestroy(orphan), period / 2);

    auto receiver = std::make_shared<Receiver>(calls);
    // From a stop before the thread first waits to one well inside a wait.
    const int rounds = 8;
    for (int round = 0; round < rounds; ++round) {
        std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(receiver);
        EXPECT_EQ(ThreadCountSettlingAt(baseline + 1), baseline + 1) << "round " << round;
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 40));
        EXPECT_LT(TimeToDestroy(usb), period / 2) << "round " << round;
        EXPECT_EQ(ThreadCountSettlingAt(baseline), baseline) << "round " << round;
    }
    EXPECT_LT(TimeToDestroy(probe), period / 2);

    std::vector<std::string> expected{"INF UsbLib_libusb exit"}; // the orphan's, without a loop
    for (int round = 0; round < rounds; ++round) {
        expected.push_back("DEB Notify loop exit");
        expected.push_back("INF UsbLib_libusb exit");
    }
    expected.push_back("INF UsbLib_libusb exit"); // the probe's
    EXPECT_EQ(LinesOf(mark.Since(), {"Notify loop exit", "UsbLib_libusb exit"}), expected);
    EXPECT_EQ(calls->Count(), 0u);
}

TEST_F(NotifyTest, PlugsAreToldOncePerPeriod)
{
    auto first = AddCamera("SX160", "QKS0001");
    auto calls = std::make_shared<Calls>();
    auto receiver = std::make_shared<Receiver>(calls);
    Watch(receiver);

    // A camera there from the start is no change.
    std::this_thread::sleep_for(overOnePeriod);
    EXPECT_EQ(calls->Count(), 0u);

    auto second = AddCamera("A1400", "QKS0002");
    ASSERT_TRUE(calls->WaitFor(1, eventLimit));
    EXPECT_EQ(calls->Last(), (Paths{first->Path(), second->Path()}));

    // Just after a poll two cameras come within one period: one call.
    auto third = AddCamera("SX160", "QKS0003");
    auto fourth = AddCamera("A1400", "QKS0004");
    ASSERT_TRUE(calls->WaitFor(2, eventLimit));
    EXPECT_EQ(calls->Last(), (Paths{first->Path(), second->Path(), third->Path(), fourth->Path()}));
    std::this_thread::sleep_for(overOnePeriod);
    EXPECT_EQ(calls->Count(), 2u);
}

TEST_F(NotifyTest, ReceiverReleasedWhileTheTransportLives)
{
    auto calls = std::make_shared<Calls>();
    auto receiver = std::make_shared<Receiver>(calls);
    // The host lets go of the receiver while a call is under way; the call
    // must still have its receiver until it returns.
    std::mutex gate;
    std::condition_variable released;
    bool inCall = false;
    bool hostLetGo = false;
    receiver->duringCall = [&] {
        std::unique_lock<std::mutex> lock(gate);
        inCall = true;
        released.notify_all();
        released.wait_for(lock, std::chrono::seconds(2), [&] { return hostLetGo; });
    };
    // Declared after what the call uses, so it ends first even when a check fails.
    std::shared_ptr<UsbLib> local = UsbLib_libusb::build(receiver);
    receiver->transport = local.get();
    auto first = AddCamera("SX160", "QKS0001");
    {
        std::unique_lock<std::mutex> lock(gate);
        ASSERT_TRUE(released.wait_for(lock, eventLimit, [&] { return inCall; }));
        receiver.reset();
        hostLetGo = true;
    }
    released.notify_all();
    ASSERT_TRUE(calls->WaitFor(1, eventLimit));
    {
        std::lock_guard<std::mutex> lock(calls->mutex);
        EXPECT_FALSE(calls->calledAfterGone);
    }
    EXPECT_EQ(calls->Last(), Paths{first->Path()});

    // The thread polls on without effect.
    AddCamera("A1400", "QKS0002");
    std::this_thread::sleep_for(overOnePeriod);
    EXPECT_EQ(calls->Count(), 1u);
    std::lock_guard<std::mutex> lock(calls->mutex);
    EXPECT_TRUE(calls->receiverGone);
    EXPECT_FALSE(calls->calledAfterGone);
}

// A camera pulled out while the engine works with it: its operations fail
// with their log lines, the other camera on the same transport goes on, and
// the host hears of the departure.

constexpr size_t fileSize = 3 * 0x100000 + 1234; // several chunks

TEST_F(NotifyTest, UnplugDuringADownloadFailsItAndSparesTheOtherCamera)
{
    auto leaving = AddCamera("SX160", "QKS0001");
    auto staying = AddCamera("A1400", "QKS0002");
    PtpReply file;
    file.hasData = true;
    file.data = Pattern(fileSize, 9);
    leaving->SetOperationHandler(PTP_OC_GetObject, [file](const PtpCommand&) { return file; });

    auto calls = std::make_shared<Calls>();
    auto receiver = std::make_shared<Receiver>(calls);
    std::shared_ptr<UsbLib> usb = Watch(receiver);
    auto gone = DevicePTP::build(usb, leaving->Path());
    auto other = DevicePTP::build(usb, staying->Path());
    ASSERT_EQ(gone->Init(), QK_OK);
    ASSERT_EQ(other->Init(), QK_OK);

    std::vector<long> chunks; // sizes, -1 for the closing call
    std::function<void(DataLen*)> toDisk = [&](DataLen* chunk) {
        chunks.push_back(chunk ? static_cast<long>(chunk->len) : -1);
        if (chunks.size() == 1)
            leaving->Unplug();
    };
    LogMark mark;
    EXPECT_FALSE(gone->PtpTransaction(PTP_OC_GetObject, DevicePTP::PTPmkParams(1), TRANSACTION_GETDATA,
                                      nullptr, nullptr, &toDisk));
    EXPECT_EQ(chunks, std::vector<long>{0x100000 + 500});
    EXPECT_EQ(mark.Count("libusb_bulk_transfer: size == 0", "ERR"), 1);
    EXPECT_EQ(mark.Count("GETDATA failed: tail data stage (with callback)", "ERR"), 1);
    EXPECT_EQ(mark.Count("PtpTransaction failed", "ERR"), 1);
    EXPECT_EQ(mark.Count("General Error"), 0); // no retry of a lost device

    // Later operations on the lost camera fail at the first write.
    LogMark later;
    EXPECT_EQ(gone->QKMLoadSerialNumber(), QK_ERROR);
    EXPECT_EQ(later.Count("Read failed: -4", "ERR"), 1);
    EXPECT_EQ(later.Count("PTP_QKM_GetSerialNumber failed", "ERR"), 1);
    DataLen none;
    EXPECT_FALSE(gone->PtpTransaction(PTP_OC_GetObject, DevicePTP::PTPmkParams(1), TRANSACTION_GETDATA,
                                      &none, nullptr, nullptr));
    EXPECT_EQ(none.data, nullptr);
    EXPECT_EQ(later.Count("PtpTransaction failed", "ERR"), 2);

    // The other camera on the same transport is untouched.
    ASSERT_EQ(other->QKMLoadSerialNumber(), QK_OK);
    EXPECT_EQ(other->GetSerialNumber(), L"QKS0002");

    ASSERT_TRUE(calls->WaitFor(1, eventLimit));
    EXPECT_EQ(calls->Last(), Paths{staying->Path()});

    // Closing the lost camera is quiet and leaves the transport whole.
    LogMark closing;
    gone.reset();
    EXPECT_EQ(closing.Count("", "ERR"), 0);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths(), Paths{staying->Path()});
    EXPECT_EQ(other->QKMLoadSerialNumber(), QK_OK);
}

} // namespace
