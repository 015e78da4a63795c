// The camera's PTP responder on its own: what it answers to command containers.

#include "sim/CameraOperations.h"
#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

#include <gtest/gtest.h>

namespace {

using namespace qksim;
using Bytes = std::vector<uint8_t>;

Bytes Command(uint16_t code, uint32_t transId, const std::vector<uint32_t>& params)
{
    return MakeParamContainer(ptp::kCommand, code, transId, params);
}

class ResponderTest : public ::testing::Test {
protected:
    ResponderTest()
    {
        CameraSetup setup;
        setup.serial = "AB";
        InstallCameraOperations(responder, setup);
    }

    // The response code of a reply that must be a response container alone.
    uint16_t ResponseOnly(const Bytes& transfer)
    {
        auto out = responder.Receive(transfer);
        EXPECT_EQ(out.size(), 1u);
        if (out.empty())
            return 0;
        EXPECT_EQ(out[0].size(), 12u);
        EXPECT_EQ(GetLe16(out[0].data() + 4), ptp::kResponse);
        return GetLe16(out[0].data() + 6);
    }

    PtpResponder responder;
};

TEST_F(ResponderTest, SerialNumberHasZeroBetweenCharactersOnly)
{
    auto out = responder.Receive(Command(0x9999, 7, {0xA1}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0], (Bytes{15, 0, 0, 0, 2, 0, 0x99, 0x99, 7, 0, 0, 0, 'A', 0, 'B'}));
    EXPECT_EQ(out[1], (Bytes{12, 0, 0, 0, 3, 0, 0x01, 0x20, 7, 0, 0, 0}));
    EXPECT_EQ(SerialNumberData(""), Bytes{});
    EXPECT_EQ(SerialNumberData("Q"), Bytes{'Q'});
}

TEST_F(ResponderTest, OpenSessionIsAcceptedWithoutData)
{
    EXPECT_EQ(ResponseOnly(Command(0x1002, 0, {1})), ptp::RC_OK);
}

TEST_F(ResponderTest, UnknownOperationsAndSubCommandsAreNotSupported)
{
    EXPECT_EQ(ResponseOnly(Command(0x1001, 1, {})), ptp::RC_OperationNotSupported);
    EXPECT_EQ(ResponseOnly(Command(0x9999, 2, {0x55})), ptp::RC_OperationNotSupported);
    EXPECT_EQ(ResponseOnly(Command(0x9999, 3, {})), ptp::RC_OperationNotSupported);
}

TEST_F(ResponderTest, MalformedCommandsGetInvalidParameter)
{
    Bytes good = Command(0x1002, 9, {1});
    Bytes wrongLength = good;
    wrongLength[0] = 20;
    Bytes dataType = good;
    dataType[4] = 2;
    Bytes notWords = good;
    notWords.push_back(0);
    notWords[0] = 17;
    Bytes sixParams = Command(0x1002, 9, {1, 2, 3, 4, 5});
    PutLe32(sixParams, 6);
    sixParams[0] = 36;
    for (const Bytes& bad : {wrongLength, dataType, notWords, sixParams, Bytes{1, 2, 3}}) {
        auto out = responder.Receive(bad);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(GetLe16(out[0].data() + 6), ptp::RC_InvalidParameter);
    }
    // The id of a readable header is answered back.
    EXPECT_EQ(GetLe32(responder.Receive(dataType)[0].data() + 8), 9u);
}

TEST_F(ResponderTest, ZeroLengthTransferIsNoCommand)
{
    EXPECT_TRUE(responder.Receive({}).empty());
    EXPECT_TRUE(responder.ReceivedCommands().empty());
}

TEST_F(ResponderTest, RecordsEveryCommandAsReceived)
{
    responder.Receive(Command(0x9999, 4, {0xA1}));
    responder.Receive(Bytes{10, 0, 0, 0, 1, 0});
    auto records = responder.ReceivedCommands();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].length, 16u);
    EXPECT_EQ(records[0].type, 1);
    EXPECT_EQ(records[0].code, 0x9999);
    EXPECT_EQ(records[0].transId, 4u);
    EXPECT_EQ(records[0].params, std::vector<uint32_t>{0xA1});
    EXPECT_EQ(records[1].length, 10u);
    EXPECT_EQ(records[1].code, 0);
    responder.ClearRecords();
    EXPECT_TRUE(responder.ReceivedCommands().empty());
}

TEST_F(ResponderTest, HandlersReplaceBuiltInAnswersInOrder)
{
    auto answer = [](uint16_t code) {
        return [code](const PtpCommand&) {
            PtpReply reply;
            reply.responseCode = code;
            reply.responseParams = {1, 2, 3, 4, 5, 6};
            return reply;
        };
    };
    responder.SetOperationHandler(0x9999, answer(0x2010));
    auto out = responder.Receive(Command(0x9999, 1, {0xA1}));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(GetLe16(out[0].data() + 6), 0x2010);
    // Six parameters asked for, five fit in a response.
    EXPECT_EQ(out[0].size(), 32u);
    EXPECT_EQ(GetLe32(out[0].data() + 0), 32u);
    EXPECT_EQ(GetLe32(out[0].data() + 28), 5u);

    responder.SetVendorHandler(0xA1, answer(0x2011));
    out = responder.Receive(Command(0x9999, 1, {0xA1}));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(GetLe16(out[0].data() + 6), 0x2011);
    // Other sub-commands fall to the operation's handler.
    EXPECT_EQ(GetLe16(responder.Receive(Command(0x9999, 1, {0xB0}))[0].data() + 6), 0x2010);
    // Removing both brings the camera's own answer back.
    responder.SetVendorHandler(0xA1, nullptr);
    responder.SetOperationHandler(0x9999, nullptr);
    EXPECT_EQ(responder.Receive(Command(0x9999, 1, {0xA1})).size(), 2u);
}

TEST_F(ResponderTest, HandlerSeesTheCommand)
{
    PtpCommand seen;
    responder.SetOperationHandler(0x1016, [&seen](const PtpCommand& command) {
        seen = command;
        PtpReply reply;
        reply.hasData = true; // empty data phase
        return reply;
    });
    auto out = responder.Receive(Command(0x1016, 33, {0xD1, 5}));
    EXPECT_EQ(seen.transId, 33u);
    EXPECT_EQ(seen.params, (std::vector<uint32_t>{0xD1, 5}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0], (Bytes{12, 0, 0, 0, 2, 0, 0x16, 0x10, 33, 0, 0, 0}));
}

TEST_F(ResponderTest, GeneralErrorAfterDataOrInsteadOfIt)
{
    responder.GeneralErrorNext(1, false);
    auto out = responder.Receive(Command(0x9999, 1, {0xA1}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(GetLe16(out[0].data() + 4), ptp::kData);
    EXPECT_EQ(GetLe16(out[1].data() + 6), ptp::RC_GeneralError);

    responder.GeneralErrorNext(2, true);
    EXPECT_EQ(ResponseOnly(Command(0x9999, 2, {0xA1})), ptp::RC_GeneralError);
    EXPECT_EQ(ResponseOnly(Command(0x1002, 3, {1})), ptp::RC_GeneralError);
    // Used up: the next one is answered normally.
    EXPECT_EQ(responder.Receive(Command(0x9999, 4, {0xA1})).size(), 2u);
}

TEST_F(ResponderTest, MalformedCommandsDoNotUseUpGeneralErrors)
{
    responder.GeneralErrorNext(1, true);
    EXPECT_EQ(ResponseOnly(Bytes{12, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}), ptp::RC_InvalidParameter);
    EXPECT_EQ(ResponseOnly(Command(0x1002, 3, {1})), ptp::RC_GeneralError);
}

TEST_F(ResponderTest, SilencedCommandsAreRecordedButUnanswered)
{
    responder.SilenceNext(1);
    EXPECT_TRUE(responder.Receive(Command(0x1002, 1, {1})).empty());
    EXPECT_EQ(ResponseOnly(Command(0x1002, 2, {1})), ptp::RC_OK);
    EXPECT_EQ(responder.ReceivedCommands().size(), 2u);
}

} // namespace
