// A camera pulled out while the engine works with it: its operations fail
// with their log lines, the other camera on the same transport goes on, and
// the host hears of the departure.

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
