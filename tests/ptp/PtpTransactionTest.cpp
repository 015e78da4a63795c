// SPDX-License-Identifier: MIT
// Transactions against a virtual camera: containers on the wire, the retry
// rule, both result destinations, the chunk rule and malformed replies.

#include <chrono>

#include "tests/common/CardCameraTest.h"

namespace {

using qksim::DataReply;
using qksim::PtpCommand;
using qksim::PtpReply;
using qktest::LogMark;
using qktest::Pattern;

constexpr uint32_t testSub = 0x55; // a sub-command the tests answer themselves

class PtpTransactionTest : public qktest::CardCameraTest {
protected:
    void Answer(PtpReply reply) { AnswerVendor(testSub, std::move(reply)); }
    bool Run(TRANSACTION_TYPE type, DataLen* result, std::vector<unsigned int>* words = nullptr,
             std::function<void(DataLen*)>* callback = nullptr)
    {
        return device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), type, result, words, callback);
    }
    bool Get(DataLen* result, std::function<void(DataLen*)>* callback = nullptr)
    {
        return Run(TRANSACTION_GETDATA, result, nullptr, callback);
    }
    bool NoData(std::vector<unsigned int>* words = nullptr) { return Run(TRANSACTION_NODATA, nullptr, words); }
    // The bytes of a result, which goes back to the engine.
    static std::vector<uint8_t> Take(DataLen& data)
    {
        const auto* bytes = static_cast<const uint8_t*>(data.data);
        std::vector<uint8_t> copy(bytes, bytes + data.len);
        DevicePTP::FreePtpTransactionGetBuffer(data);
        return copy;
    }
};

TEST_F(PtpTransactionTest, CommandContainerCarriesCodeIdAndParameters)
{
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_OpenSession, DevicePTP::PTPmkParams(1),
                                       TRANSACTION_NODATA, nullptr, nullptr, nullptr));
    Answer(PtpReply());
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub, 7, 0xFFFFFFFF),
                                       TRANSACTION_NODATA, nullptr, nullptr, nullptr));
    EXPECT_EQ(qktest::Records(camera->ReceivedCommands()),
              (std::vector<std::vector<uint32_t>>{{16, 1, 0x1002, 0, 1}, {24, 1, 0x9999, 1, testSub, 7, 0xFFFFFFFF}}));
    EXPECT_EQ(camera->Traffic().outLengths, (std::vector<uint32_t>{16, 24}));

    // More parameters than a command container holds never leave the host.
    LogMark mark;
    EXPECT_FALSE(device->PtpTransaction(PTP_OC_QKM, {testSub, 1, 2, 3, 4, 5}, TRANSACTION_NODATA, nullptr,
                                        nullptr, nullptr));
    EXPECT_EQ(mark.Count("too many parameters: 6", "ERR"), 1);
    EXPECT_EQ(camera->ReceivedCommands().size(), 2u);
}

TEST_F(PtpTransactionTest, ReplyArrivesWholeInTheResultOrInChunksOfTheFirstPacketRule)
{
    const long mib = 0x100000;
    struct Case {
        size_t size;
        std::vector<long> chunks; // as the callback sees them, -1 for the closing null call
    } cases[] = {
        {0, {-1}},
        {40, {40, -1}},
        {500, {500, -1}},
        {501, {501, -1}},
        {1012, {1012, -1}},
        {3000, {3000, -1}},
        // Read whole only: by the rule the first chunk would be 1 MiB, which
        // ends inside a packet, and the transfer overflows.
        {size_t(mib) + 77, {}},
        {size_t(mib) + 500, {mib + 500, -1}},
        {size_t(mib) + 501, {mib + 500, 1, -1}},
        {size_t(2 * mib) + 600, {mib + 500, mib, 100, -1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        const std::vector<uint8_t> data = Pattern(c.size, static_cast<uint8_t>(c.size));
        Answer(DataReply(data));
        camera->ClearRecords();
        std::vector<long> sizes;
        std::vector<uint8_t> collected;
        std::function<void(DataLen*)> callback = [&](DataLen* chunk) {
            sizes.push_back(chunk ? static_cast<long>(chunk->len) : -1);
            if (chunk)
                collected.insert(collected.end(), static_cast<const uint8_t*>(chunk->data),
                                 static_cast<const uint8_t*>(chunk->data) + chunk->len);
        };
        // Given both destinations, the result takes the whole reply.
        DataLen result;
        ASSERT_TRUE(Get(&result, &callback));
        EXPECT_TRUE(Take(result) == data);
        EXPECT_TRUE(sizes.empty());
        // The 52-byte data container and the response: one transfer each.
        if (c.size == 40) {
            EXPECT_EQ(camera->Traffic().inRequests, (std::vector<uint32_t>{512, 512}));
        }

        if (c.chunks.empty())
            continue;
        ASSERT_TRUE(Get(nullptr, &callback));
        EXPECT_EQ(sizes, c.chunks);
        EXPECT_TRUE(collected == data);
    }
    LogMark mark;
    EXPECT_FALSE(Get(nullptr));
    EXPECT_EQ(mark.Count("PtpTransaction: Unknown result destination"), 1);
}

TEST_F(PtpTransactionTest, ThreeGeneralErrorsAreRetriedThenFail)
{
    camera->GeneralErrorNext(3);
    Answer(PtpReply());
    LogMark mark;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NoData());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
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
    EXPECT_EQ(Take(result), Pattern(64, 5));
    EXPECT_EQ(mark.Count("GETDATA failed: wrong CONTAINER_DATA"), 2);
    EXPECT_EQ(qktest::Records(camera->ReceivedCommands()),
              (std::vector<std::vector<uint32_t>>{{16, 1, 0x9999, 0, testSub}, {16, 1, 0x9999, 1, testSub},
                                                  {16, 1, 0x9999, 2, testSub}}));

    // After a whole data phase: that buffer is freed and the transaction sent again.
    camera->ClearRecords();
    camera->GeneralErrorNext(1);
    Answer(DataReply(Pattern(700, 3)));
    ASSERT_TRUE(Get(&result));
    EXPECT_EQ(Take(result), Pattern(700, 3));
    EXPECT_EQ(camera->ReceivedCommands().size(), 2u);
}

TEST_F(PtpTransactionTest, ResponseWordsComeAsFiveTheOperationCodeCountsAsSuccessOtherCodesFailAtOnce)
{
    struct Case {
        uint16_t code;
        std::vector<uint32_t> params;
        std::vector<unsigned int> words; // as a failure leaves them: untouched
    } cases[] = {
        {0x2001, {}, {0, 0, 0, 0, 0}},
        {0x2001, {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}},
        {PTP_OC_QKM, {11, 22}, {11, 22, 0, 0, 0}},
        {0x2019, {11, 22}, {9, 8, 7}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        PtpReply reply;
        reply.responseCode = c.code;
        reply.responseParams = c.params;
        Answer(reply);
        camera->ClearRecords();
        LogMark mark;
        std::vector<unsigned int> words{9, 8, 7};
        const bool failure = c.code == 0x2019;
        EXPECT_EQ(NoData(&words), !failure);
        EXPECT_EQ(words, c.words);
        EXPECT_EQ(camera->ReceivedCommands().size(), 1u);
        EXPECT_EQ(mark.Count("incorrect response code " + std::to_string(c.code), "ERR"), failure ? 1 : 0);
        EXPECT_EQ(mark.Count("Retry"), 0);
    }
}

TEST_F(PtpTransactionTest, MalformedRepliesFailWithTheirLogLineAndNoRetryAndTheLinkRecovers)
{
    // A raw container queued ahead of the camera's own answer.
    const struct {
        TRANSACTION_TYPE type;
        uint32_t length;
        uint16_t kind, code;
        size_t bytes;
        const char* line;
        bool ofAnotherTransaction;
    } cases[] = {
        {TRANSACTION_NODATA, 513, 3, 0x2001, 12, "PtpReadContainer: packed to long", false},
        {TRANSACTION_NODATA, 8, 3, 0x2001, 12, "PtpReadContainer: packed too short", false},
        {TRANSACTION_NODATA, 12, 2, 0x9999, 12, "incorrect response type 2", false},
        {TRANSACTION_GETDATA, 12, 3, 0x2001, 12, "GETDATA failed: wrong CONTAINER_DATA", false},
        {TRANSACTION_GETDATA, 16, 2, 0x1009, 16, "GETDATA failed: wrong code", false},
        {TRANSACTION_GETDATA, 4, 2, 0x9999, 12, "below the header", false},
        {TRANSACTION_GETDATA, 12, 9, 0x9999, 12, "GETDATA failed: wrong CONTAINER_DATA", false},
        {TRANSACTION_GETDATA, 3, 9, 0x9999, 12, "out of step with the camera", true},
        {TRANSACTION_GETDATA, (64u << 20) + 13, 2, 0x9999, 12, "over the limit of 67108864", false},
        // Data far shorter than its header says.
        {TRANSACTION_GETDATA, 100000, 2, 0x9999, 600, "GETDATA failed: tail data stage", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Answer(PtpReply());
        // Every transaction so far sent one command.
        const auto id = static_cast<uint32_t>(camera->ReceivedCommands().size());
        camera->QueueRawIn(qksim::MakeRawHeader(c.length, c.kind, c.code, c.ofAnotherTransaction ? 77 : id, c.bytes));
        LogMark mark;
        DataLen result;
        EXPECT_FALSE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(testSub), c.type, &result,
                                            nullptr, nullptr));
        EXPECT_EQ(result.data, nullptr);
        EXPECT_EQ(mark.Count(c.line), 1);
        EXPECT_EQ(mark.Count("PtpTransaction failed"), 1);
        EXPECT_EQ(mark.Count("Retry"), 0);
        // What is left of the broken reply does not spoil the next transaction.
        EXPECT_TRUE(NoData());
    }
}

TEST_F(PtpTransactionTest, LateAnswerOfATimedOutTransactionIsSkippedNotTaken)
{
    // Every sub-command shares one operation code: only the transaction id
    // keeps the late answer to the first request from passing for the second's.
    Answer(DataReply({1, 2, 3, 4}));
    constexpr uint32_t otherSub = testSub + 1;
    PtpReply other = DataReply({9, 8});
    other.responseParams = {42};
    AnswerVendor(otherSub, other);
    camera->TimeOutNext(0x81, 1);
    DataLen result;
    EXPECT_FALSE(Get(&result));
    EXPECT_EQ(result.data, nullptr);

    LogMark mark;
    std::vector<unsigned int> words;
    ASSERT_TRUE(device->PtpTransaction(PTP_OC_QKM, DevicePTP::PTPmkParams(otherSub), TRANSACTION_GETDATA,
                                       &result, &words, nullptr));
    EXPECT_EQ(Take(result), (std::vector<uint8_t>{9, 8}));
    EXPECT_EQ(words.at(0), 42u);
    EXPECT_EQ(mark.Count("discarding a stale container (type 2, transaction 0, waiting for 1)"), 1);
    EXPECT_EQ(mark.Count("discarding a stale container (type 3, transaction 0, waiting for 1)"), 1);
    EXPECT_TRUE(Get(&result));
    EXPECT_EQ(Take(result), (std::vector<uint8_t>{1, 2, 3, 4}));
}

TEST_F(PtpTransactionTest, RestOfABrokenTransferIsSkippedPacketByPacket)
{
    // What a stall or time-out in the middle of a data phase leaves behind:
    // the rest of the data, then the response of that transaction.
    Answer(DataReply({1, 2, 3}));
    camera->QueueRawPackets({std::vector<uint8_t>(512, 0xA5), std::vector<uint8_t>(100, 0x5A),
                             qksim::MakeRawHeader(12, 3, 0x2001, 7, 12)});
    LogMark mark;
    DataLen result;
    ASSERT_TRUE(Get(&result));
    EXPECT_EQ(Take(result), (std::vector<uint8_t>{1, 2, 3}));
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
