// SPDX-License-Identifier: MIT
// The camera's PTP responder on its own: what it answers to command containers.

#include "sim/CameraOperations.h"
#include "sim/PtpContainer.h"
#include "sim/PtpReplies.h"
#include "sim/PtpResponder.h"

#include "tests/common/VirtualCameraTest.h"

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

    // The response code of a reply that must be a response container alone,
    // with the command's transaction id where it has a whole header.
    uint16_t ResponseOnly(const Bytes& transfer)
    {
        auto out = responder.Receive(transfer);
        EXPECT_EQ(out.size(), 1u);
        if (out.empty() || out[0].size() != 12u) {
            ADD_FAILURE() << "not a lone response without parameters";
            return 0;
        }
        EXPECT_EQ(GetLe32(out[0].data()), 12u);
        EXPECT_EQ(GetLe16(out[0].data() + 4), ptp::kResponse);
        if (transfer.size() >= 12) {
            EXPECT_EQ(GetLe32(out[0].data() + 8), GetLe32(transfer.data() + 8));
        }
        return GetLe16(out[0].data() + 6);
    }

    PtpResponder responder;
};

// A program other than the engine may send anything: malformed commands get InvalidParameter.
TEST_F(ResponderTest, AnswersWithoutDataAndMalformedCommandsGetInvalidParameter)
{
    Bytes wrongLength = Command(0x1002, 9, {1});
    wrongLength[0] = 20;
    const std::pair<Bytes, uint16_t> cases[] = {
        {Command(0x1002, 0, {1}), ptp::RC_OK},
        {Command(0x9999, 2, {0x55}), ptp::RC_OperationNotSupported},
        {wrongLength, ptp::RC_InvalidParameter},
        {MakeParamContainer(ptp::kData, 0x1002, 9, {1}), ptp::RC_InvalidParameter},
        {MakeContainer(ptp::kCommand, 0x1002, 9, Bytes(5)), ptp::RC_InvalidParameter},  // not whole words
        {MakeContainer(ptp::kCommand, 0x1002, 9, Bytes(24)), ptp::RC_InvalidParameter}, // six parameters
    };
    for (const auto& c : cases)
        EXPECT_EQ(ResponseOnly(c.first), c.second) << "case " << (&c - cases);
}

TEST_F(ResponderTest, RecordsEveryCommandAsReceivedSilencedOrNot)
{
    EXPECT_TRUE(responder.Receive({}).empty()); // a zero-length transfer is no command
    responder.SilenceNext(1);
    EXPECT_TRUE(responder.Receive(Command(0x9999, 4, {0xA1})).empty());
    EXPECT_EQ(ResponseOnly(Bytes{10, 0, 0, 0, 1, 0}), ptp::RC_InvalidParameter);
    EXPECT_EQ(qktest::Records(responder.ReceivedCommands()),
              (std::vector<std::vector<uint32_t>>{{16, 1, 0x9999, 4, 0xA1}, {10, 1, 0, 0}}));
}

TEST_F(ResponderTest, HandlersSeeTheCommandAndReplaceBuiltInAnswersInOrder)
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
    // Six parameters asked for, five fit in a response.
    EXPECT_EQ(out.at(0), MakeParamContainer(ptp::kResponse, 0x2010, 1, {1, 2, 3, 4, 5}));

    responder.SetVendorHandler(0xA1, answer(0x2011));
    EXPECT_EQ(GetLe16(responder.Receive(Command(0x9999, 1, {0xA1})).at(0).data() + 6), 0x2011);
    // Other sub-commands fall to the operation's handler.
    EXPECT_EQ(GetLe16(responder.Receive(Command(0x9999, 1, {0xB0}))[0].data() + 6), 0x2010);
    // Removing both brings the camera's own answer back.
    responder.SetVendorHandler(0xA1, nullptr);
    responder.SetOperationHandler(0x9999, nullptr);
    EXPECT_EQ(responder.Receive(Command(0x9999, 1, {0xA1})).size(), 2u);

    // A handler sees the command; its empty data phase is a bare header.
    PtpCommand seen;
    responder.SetOperationHandler(0x1016, [&seen](const PtpCommand& command) {
        seen = command;
        return DataReply({});
    });
    out = responder.Receive(Command(0x1016, 33, {0xD1, 5}));
    EXPECT_EQ(qktest::Records({seen}), (std::vector<std::vector<uint32_t>>{{20, 1, 0x1016, 33, 0xD1, 5}}));
    EXPECT_EQ(out.at(0), (Bytes{12, 0, 0, 0, 2, 0, 0x16, 0x10, 33, 0, 0, 0}));
}

TEST_F(ResponderTest, GeneralErrorAfterDataOrInsteadOfIt)
{
    responder.GeneralErrorNext(1, false);
    auto out = responder.Receive(Command(0x9999, 1, {0xA1}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(GetLe16(out[0].data() + 4), ptp::kData);
    EXPECT_EQ(out[1], MakeParamContainer(ptp::kResponse, ptp::RC_GeneralError, 1, {}));

    responder.GeneralErrorNext(2, true);
    // A malformed command does not use one up.
    EXPECT_EQ(ResponseOnly(Bytes{12, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}), ptp::RC_InvalidParameter);
    EXPECT_EQ(ResponseOnly(Command(0x9999, 2, {0xA1})), ptp::RC_GeneralError);
    EXPECT_EQ(ResponseOnly(Command(0x1002, 3, {1})), ptp::RC_GeneralError);
    // Used up: the next one is answered normally.
    EXPECT_EQ(responder.Receive(Command(0x9999, 4, {0xA1})).size(), 2u);
}

} // namespace
