// Transactions against a virtual camera: containers on the wire, the retry
// rule, both result destinations, the chunk rule and malformed replies.

#include <chrono>
#include <cstring>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "sim/PtpReplies.h"
#include "tests/common/TestLog.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using qksim::DataReply;
using qksim::PtpCommand;
using qksim::PtpReply;
using qktest::LogMark;
using qktest::Pattern;

constexpr uint32_t testSub = 0x55; // a sub-command the tests answer themselves

class PtpTransactionTest : public qktest::VirtualCameraTest {
protected:
    void SetUp() override
    {
        camera = AddCamera("SX160", "QKS0001");
        device = DevicePTP::build(Transport(), camera->Path());
        ASSERT_EQ(device->Init(), QK_OK);
        camera->ClearRecords();
    }
    void TearDown() override
    {
        device.reset();
        VirtualCameraTest::TearDown();
    }

    void Answer(PtpReply reply)
    {
        camera->SetVendorHandler(testSub, [reply](const PtpCommand&) { return reply; });
    }
    bool Get(DataLen* result, std::vector<unsigned int>* words = nullptr)
    {
        return device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), TRANSACTION_GETDATA,
                                      result, words, nullptr);
    }
    bool NoData(std::vector<unsigned int>* words = nullptr)
    {
        return device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), TRANSACTION_NODATA,
                                      nullptr, words, nullptr);
    }

    std::shared_ptr<qksim::VirtualCamera> camera;
    std::shared_ptr<DevicePTP> device;
};

TEST_F(PtpTransactionTest, CommandContainerCarriesCodeIdAndParameters)
{
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_OpenSession, DevicePTP::PTPmkParams(1),
                                       TRANSACTION_NODATA, nullptr, nullptr, nullptr));
    Answer(PtpReply());
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub, 7, 0xFFFFFFFF),
                                       TRANSACTION_NODATA, nullptr, nullptr, nullptr));
    std::vector<PtpCommand> sent = camera->ReceivedCommands();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].length, 16u);
    EXPECT_EQ(sent[0].type, 1);
    EXPECT_EQ(sent[0].code, 0x1002);
    EXPECT_EQ(sent[0].transId, 0u);
    EXPECT_EQ(sent[0].params, std::vector<uint32_t>{1});
    EXPECT_EQ(sent[1].length, 24u);
    EXPECT_EQ(sent[1].transId, 1u);
    EXPECT_EQ(sent[1].params, (std::vector<uint32_t>{testSub, 7, 0xFFFFFFFF}));
    EXPECT_EQ(camera->Traffic().outLengths, (std::vector<uint32_t>{16, 24}));
}

TEST_F(PtpTransactionTest, ReplyArrivesWholeWhateverItsSize)
{
    for (size_t size : {40u, 500u, 501u, 1012u, 3000u, 0x100000u + 77u}) {
        std::vector<uint8_t> data = Pattern(size, static_cast<uint8_t>(size));
        Answer(DataReply(data));
        DataLen result;
        ASSERT_TRUE(Get(&result)) << size;
        ASSERT_EQ(result.len, size);
        EXPECT_EQ(std::memcmp(result.data, data.data(), size), 0) << size;
        DevicePTP::FreePtpTransactionGetBuffer(result);
        // The 52-byte data container and the response: one transfer each.
        if (size == 40) {
            EXPECT_EQ(camera->Traffic().inRequests, (std::vector<uint32_t>{512, 512}));
        }
    }
}

TEST_F(PtpTransactionTest, ThreeGeneralErrorsAreRetriedThenFail)
{
    camera->GeneralErrorNext(3);
    Answer(PtpReply());
    LogMark mark;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NoData());
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(mark.Count("PTP General Error. Retry " + std::to_string(i)), 1);
    EXPECT_EQ(mark.Count("PTP General Error. Retry 3"), 0);
    EXPECT_EQ(mark.Count("PTP_RC_GeneralError"), 3);
    EXPECT_EQ(camera->ReceivedCommands().size(), 3u);
}

TEST_F(PtpTransactionTest, GeneralErrorInsteadOfOrAfterDataIsRetriedWithNewIds)
{
    camera->GeneralErrorNext(2, true);
    Answer(DataReply(Pattern(64, 5)));
    LogMark mark;
    DataLen result;
    ASSERT_TRUE(Get(&result));
    EXPECT_EQ(result.len, 64u);
    DevicePTP::FreePtpTransactionGetBuffer(result);
    EXPECT_EQ(mark.Count("GETDATA failed: wrong CONTAINER_DATA"), 2);
    std::vector<PtpCommand> sent = camera->ReceivedCommands();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].transId, 0u);
    EXPECT_EQ(sent[1].transId, 1u);
    EXPECT_EQ(sent[2].transId, 2u);

    // After a whole data phase: that buffer is freed and the transaction sent again.
    camera->ClearRecords();
    camera->GeneralErrorNext(1);
    Answer(DataReply(Pattern(700, 3)));
    ASSERT_TRUE(Get(&result));
    EXPECT_EQ(result.len, 700u);
    DevicePTP::FreePtpTransactionGetBuffer(result);
    EXPECT_EQ(camera->ReceivedCommands().size(), 2u);
}

TEST_F(PtpTransactionTest, OtherResponseCodesFailAtOnce)
{
    PtpReply busy;
    busy.responseCode = 0x2019;
    Answer(busy);
    LogMark mark;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NoData());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(camera->ReceivedCommands().size(), 1u);
    EXPECT_EQ(mark.Count("incorrect response code 8217"), 1);
    EXPECT_EQ(mark.Count("Retry"), 0);
}

TEST_F(PtpTransactionTest, ResponseWordsComeAsFiveAndTheOperationCodeCountsAsSuccess)
{
    struct Case {
        uint16_t code;
        std::vector<uint32_t> params;
        std::vector<unsigned int> words;
    } cases[] = {
        {0x2001, {}, {0, 0, 0, 0, 0}},
        {0x2001, {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}},
        {PTP_OC_QKM, {11, 22}, {11, 22, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        PtpReply reply;
        reply.responseCode = c.code;
        reply.responseParams = c.params;
        Answer(reply);
        std::vector<unsigned int> words{9, 8, 7};
        ASSERT_TRUE(NoData(&words)) << c.code;
        EXPECT_EQ(words, c.words) << c.code;
    }
}

TEST_F(PtpTransactionTest, ChunksFollowTheFirstPacketRule)
{
    const long mib = 0x100000;
    struct Case {
        size_t size;
        std::vector<long> chunks;
    } cases[] = {
        {0, {-1}},
        {1500, {1500, -1}},
        {size_t(mib) + 500, {mib + 500, -1}},
        {size_t(mib) + 501, {mib + 500, 1, -1}},
        {size_t(2 * mib) + 600, {mib + 500, mib, 100, -1}},
    };
    for (const Case& c : cases) {
        // Chunk sizes seen by the callback, -1 standing for the closing null call.
        std::vector<long> sizes;
        std::vector<uint8_t> collected;
        std::function<void(DataLen*)> callback = [&](DataLen* chunk) {
            sizes.push_back(chunk ? static_cast<long>(chunk->len) : -1);
            if (chunk)
                collected.insert(collected.end(), static_cast<const uint8_t*>(chunk->data),
                                 static_cast<const uint8_t*>(chunk->data) + chunk->len);
        };
        Answer(DataReply(Pattern(c.size, 42)));
        EXPECT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), TRANSACTION_GETDATA,
                                           nullptr, nullptr, &callback));
        EXPECT_EQ(sizes, c.chunks) << c.size;
        EXPECT_TRUE(collected == Pattern(c.size, 42)) << c.size;
    }
}

TEST_F(PtpTransactionTest, ResultGoesBeforeCallbackAndNeitherIsAnError)
{
    Answer(DataReply(Pattern(10, 0)));
    int calls = 0;
    std::function<void(DataLen*)> callback = [&](DataLen*) { ++calls; };
    DataLen result;
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub),
                                       TRANSACTION_GETDATA, &result, nullptr, &callback));
    EXPECT_EQ(result.len, 10u);
    EXPECT_EQ(calls, 0);
    DevicePTP::FreePtpTransactionGetBuffer(result);

    LogMark mark;
    EXPECT_FALSE(Get(nullptr));
    EXPECT_EQ(mark.Count("PtpTransaction: Unknown result destination"), 1);
}

// Raw containers queued ahead of the camera's own answer.
std::vector<uint8_t> Container(uint32_t length, uint16_t type, uint16_t code, size_t bytes,
                               uint32_t transId = 0)
{
    return qksim::MakeRawHeader(length, type, code, transId, bytes);
}

struct Malformed {
    const char* what;
    TRANSACTION_TYPE type;
    std::vector<uint8_t> raw;
    const char* line;
};

void PrintTo(const Malformed& m, std::ostream* os) { *os << m.what; }

class MalformedReplyTest : public PtpTransactionTest,
                           public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedReplyTest, FailsWithItsLogLineAndNoRetry)
{
    const Malformed& c = GetParam();
    Answer(PtpReply());
    camera->QueueRawIn(c.raw);
    LogMark mark;
    DataLen result;
    EXPECT_FALSE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), c.type,
                                        &result, nullptr, nullptr));
    EXPECT_EQ(result.data, nullptr);
    EXPECT_EQ(mark.Count(c.line), 1);
    EXPECT_EQ(mark.Count("PtpTransaction failed"), 1);
    EXPECT_EQ(mark.Count("Retry"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Containers, MalformedReplyTest,
    ::testing::Values(
        Malformed{"response too long", TRANSACTION_NODATA, Container(513, 3, 0x2001, 12),
                  "PtpReadContainer: packed to long"},
        Malformed{"response shorter than its header", TRANSACTION_NODATA, Container(8, 3, 0x2001, 12),
                  "PtpReadContainer: packed too short"},
        Malformed{"data where the response belongs", TRANSACTION_NODATA,
                  Container(12, 2, 0x9999, 12), "incorrect response type 2"},
        Malformed{"response where data belongs", TRANSACTION_GETDATA, Container(12, 3, 0x2001, 12),
                  "GETDATA failed: wrong CONTAINER_DATA"},
        Malformed{"data of another operation", TRANSACTION_GETDATA, Container(16, 2, 0x1009, 16),
                  "GETDATA failed: wrong code"},
        Malformed{"data header shorter than itself", TRANSACTION_GETDATA, Container(4, 2, 0x9999, 12),
                  "below the header"},
        Malformed{"unknown container type", TRANSACTION_GETDATA, Container(12, 9, 0x9999, 12),
                  "GETDATA failed: wrong CONTAINER_DATA"},
        Malformed{"garbage of another transaction", TRANSACTION_GETDATA, Container(3, 9, 0x9999, 12, 77),
                  "out of step with the camera"},
        Malformed{"whole reply over the limit", TRANSACTION_GETDATA,
                  Container((64u << 20) + 13, 2, 0x9999, 12), "over the limit of 67108864"},
        Malformed{"data far shorter than its header says", TRANSACTION_GETDATA,
                  Container(100000, 2, 0x9999, 600), "GETDATA failed: tail data stage"}));

TEST_F(PtpTransactionTest, LateAnswerOfATimedOutTransactionIsSkippedNotTaken)
{
    // Every sub-command shares one operation code: only the transaction id
    // keeps the late answer to the first request from passing for the second's.
    Answer(DataReply({1, 2, 3, 4}));
    constexpr uint32_t otherSub = testSub + 1;
    PtpReply other = DataReply({9, 8});
    other.responseParams = {42};
    camera->SetVendorHandler(otherSub, [other](const PtpCommand&) { return other; });
    camera->TimeOutNext(0x81, 1);
    DataLen result;
    EXPECT_FALSE(Get(&result));
    EXPECT_EQ(result.data, nullptr);

    LogMark mark;
    std::vector<unsigned int> words;
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(otherSub), TRANSACTION_GETDATA,
                                       &result, &words, nullptr));
    const auto* bytes = static_cast<const uint8_t*>(result.data);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + result.len), (std::vector<uint8_t>{9, 8}));
    EXPECT_EQ(words.at(0), 42u);
    DevicePTP::FreePtpTransactionGetBuffer(result);
    EXPECT_EQ(mark.Count("discarding a stale container (type 2, transaction 0, waiting for 1)"), 1);
    EXPECT_EQ(mark.Count("discarding a stale container (type 3, transaction 0, waiting for 1)"), 1);
    EXPECT_TRUE(Get(&result));
    DevicePTP::FreePtpTransactionGetBuffer(result);
}

TEST_F(PtpTransactionTest, RestOfABrokenTransferIsSkippedPacketByPacket)
{
    // What a stall or time-out in the middle of a data phase leaves behind:
    // the rest of the data, then the response of that transaction.
    Answer(DataReply({1, 2, 3}));
    camera->QueueRawPackets({std::vector<uint8_t>(512, 0xA5), std::vector<uint8_t>(100, 0x5A),
                             Container(12, 3, 0x2001, 12, 7)});
    LogMark mark;
    DataLen result;
    ASSERT_TRUE(Get(&result));
    const auto* bytes = static_cast<const uint8_t*>(result.data);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + result.len), (std::vector<uint8_t>{1, 2, 3}));
    DevicePTP::FreePtpTransactionGetBuffer(result);
    EXPECT_EQ(mark.Count("skipping to the next container"), 1);
    EXPECT_EQ(mark.Count("discarding a stale container (type 3, transaction 7"), 1);
    EXPECT_EQ(mark.Count("back in step after 2 packets"), 1);
}

TEST_F(PtpTransactionTest, NoOpenDeviceFailsWithoutTraffic)
{
    auto unopened = DevicePTP::build(usb, L"1193:12353:9:99");
    EXPECT_EQ(unopened->Init(), QK_ERROR);
    LogMark mark;
    EXPECT_FALSE(unopened->PtpTransaction(PTP_OC_OpenSession, DevicePTP::PTPmkParams(1),
                                          TRANSACTION_NODATA, nullptr, nullptr, nullptr));
    EXPECT_EQ(mark.Count("PtpTransaction failed"), 1);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
}

} // namespace
