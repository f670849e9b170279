// The transaction layer against a camera that misbehaves on the wire.
#include <chrono>
#include <cstring>
#include <thread>

#include "link_support.h"

#if !defined(_WIN32)
#include <sys/resource.h>
#endif

namespace linktest {
namespace {

using namespace std::chrono_literals;
using orq::PTP_DATA_IN;
using orq::PTP_NO_DATA;
using orq::PTP_OC_Vendor;

class TransactionTest : public LinkTest {};

TEST_F(TransactionTest, CommandsCarryCodeParametersAndARisingTransactionId) {
    // The session was opened with id 0; the counter goes on from 1, failures included.
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_Shoot,
                                         orqsim::RC_DeviceBusy));
    int32_t value = 0;
    ASSERT_EQ(link->PTPGetPropCase(205, value), ORQ_OK);
    EXPECT_EQ(link->PTPShoot(), ORQ_ERROR);
    EXPECT_EQ(link->PTPSetZoom(3), ORQ_OK);

    auto ops = camera->Operations();
    ASSERT_EQ(ops.size(), 3u);
    EXPECT_EQ(ops[0].params, (std::vector<uint32_t>{129, 205, 1}));
    EXPECT_EQ(ops[1].params, (std::vector<uint32_t>{147}));
    EXPECT_EQ(ops[2].params, (std::vector<uint32_t>{132, 3}));
    for (size_t i = 0; i < ops.size(); ++i) {
        EXPECT_EQ(ops[i].code, PTP_OC_Vendor);
        EXPECT_EQ(ops[i].transactionId, i + 1);
    }
}

TEST_F(TransactionTest, OpenSessionRestartsTheCounterAtZero) {
    ASSERT_TRUE(Probe());
    ASSERT_EQ(link->PTPOpenSession(), ORQ_OK);
    ASSERT_TRUE(Probe());
    auto ops = camera->Operations();
    ASSERT_EQ(ops.size(), 3u);
    EXPECT_EQ(ops[1].code, orq::PTP_OC_OpenSession);
    EXPECT_EQ(ops[1].params, (std::vector<uint32_t>{1}));
    EXPECT_EQ(ops[1].transactionId, 0u);
    EXPECT_EQ(ops[2].transactionId, 1u);
}

TEST_F(TransactionTest, EchoedOperationCodeCountsAsSuccess) {
    camera->InjectFault(Fault::Operation(Fault::EchoCode, 0, -1, 0));
    camera->InjectFault(Fault::Operation(Fault::EchoCode, 0, -1, 0));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_OK);
    EXPECT_EQ(mode, 1u);
    EXPECT_TRUE(Probe());
    EXPECT_TRUE(Log().empty());
}

TEST_F(TransactionTest, ResponseParametersAreFiveWordsZeroFilled) {
    // A bare 12-byte response, then one with two words.
    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_RemoteCaptureIsReady, Container(3, 0x2001)));
    std::vector<uint32_t> params{7, 7};
    ASSERT_TRUE(link->PtpTransactionRetry(PTP_OC_Vendor, {orq::ORQM_RemoteCaptureIsReady},
                                          PTP_NO_DATA, nullptr, &params));
    EXPECT_EQ(params, (std::vector<uint32_t>(5, 0)));

    camera->InjectFault(
        Raw(PTP_OC_Vendor, orq::ORQM_RemoteCaptureIsReady, Container(3, 0x2001, Words({9, 8}))));
    ASSERT_TRUE(link->PtpTransactionRetry(PTP_OC_Vendor, {orq::ORQM_RemoteCaptureIsReady},
                                          PTP_NO_DATA, nullptr, &params));
    EXPECT_EQ(params, (std::vector<uint32_t>{9, 8, 0, 0, 0}));
}

TEST_F(TransactionTest, EmptyDataPhaseGivesAnEmptyBlock) {
    orq::PtpDataBlock block;
    ASSERT_EQ(link->PTPGetMemory(0x1234, 0, block), ORQ_OK);
    EXPECT_EQ(block.size, 0u);
}

TEST_F(TransactionTest, ResponseLengthLimitIs512) {
    camera->InjectFault(Fault::Operation(Fault::ResponseLength, PTP_OC_Vendor, -1, 512));
    EXPECT_TRUE(Probe());
    EXPECT_TRUE(Log().empty());

    camera->InjectFault(Fault::Operation(Fault::ResponseLength, PTP_OC_Vendor, -1, 513));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpReadContainer: packed to long", "PtpTransaction failed"}));
    EXPECT_EQ(camera->Operations().size(), 2u);
}

TEST_F(TransactionTest, ResponseShorterThanItsHeaderFails) {
    camera->InjectFault(Fault::Operation(Fault::ResponseLength, PTP_OC_Vendor, -1, 8));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(
        Log(), {"PtpReadContainer: packed length 8 below header", "PtpTransaction failed"}));
}

TEST_F(TransactionTest, WrongResponseTypeAndCodeFailWithoutRetry) {
    camera->InjectFault(Fault::Operation(Fault::ResponseType, PTP_OC_Vendor, -1, 2));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "incorrect response type 2"}));

    logStart = LogSize();
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, -1, 0x2005));
    EXPECT_FALSE(Probe());
    auto log = Log();
    EXPECT_TRUE(InOrder(log, {"PtpTransaction failed", "incorrect response code 8197"}));
    EXPECT_EQ(Count(log, "PTP_RC_GeneralError"), 0);
    EXPECT_EQ(camera->Operations().size(), 2u);
}

TEST_F(TransactionTest, GeneralErrorIsRetriedWithSleepsOutsideTheLock) {
    camera->InjectFault(Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_Shoot));
    std::thread shooter([&] { EXPECT_EQ(link->PTPShoot(), ORQ_OK); });
    // While the shooter sleeps before its second attempt, another thread gets through.
    while (camera->CountOperations(PTP_OC_Vendor, orq::ORQM_Shoot) == 0) {
        std::this_thread::sleep_for(1ms);
    }
    auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(Probe());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 250ms);
    shooter.join();

    auto ops = camera->Operations();
    ASSERT_EQ(ops.size(), 3u);
    EXPECT_EQ(ops[0].SubCommand(), orq::ORQM_Shoot);
    EXPECT_EQ(ops[1].SubCommand(), orq::ORQM_UpdateAEAF);
    EXPECT_EQ(ops[2].SubCommand(), orq::ORQM_Shoot);
    // Each attempt is a transaction of its own.
    EXPECT_NE(ops[0].transactionId, ops[2].transactionId);
    auto log = Log();
    EXPECT_TRUE(InOrder(log, {"PTP_RC_GeneralError", "PtpTransaction failed",
                              "incorrect response code 8194", "PTP General Error. Retry 0"}));
    EXPECT_EQ(Count(log, "PTP_ORQM_Shoot failed"), 0);
}

TEST_F(TransactionTest, ThreeGeneralErrorsFailAfter900Ms) {
    Fault fault = Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_Shoot);
    fault.times = -1;
    camera->InjectFault(fault);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(link->PTPShoot(), ORQ_ERROR);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_Shoot), 3u);
    EXPECT_TRUE(InOrder(Log(), {"PTP General Error. Retry 0", "PTP General Error. Retry 1",
                                "PTP General Error. Retry 2", "PTP_ORQM_Shoot failed"}));
}

TEST_F(TransactionTest, GeneralErrorInPlaceOfDataIsConsumedAndRetried) {
    camera->InjectFault(Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_GetMode));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_OK);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 2u);
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "GETDATA failed: wrong CONTAINER_DATA",
                                "PTP_RC_GeneralError", "PTP General Error. Retry 0"}));
}

TEST_F(TransactionTest, OtherResponseInPlaceOfDataFailsAndLeavesItsRestOnThePipe) {
    // A busy response with one parameter: twelve bytes are taken as the header, four remain.
    camera->InjectFault(
        Raw(PTP_OC_Vendor, orq::ORQM_GetMode, Container(3, orqsim::RC_DeviceBusy, Words({5}))));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 1u);
    auto log = Log();
    EXPECT_TRUE(InOrder(log, {"PtpTransaction failed", "GETDATA failed: wrong CONTAINER_DATA",
                              "PTPORQMGet failed: 150", "PTP_ORQM_GetMode failed"}));
    EXPECT_EQ(Count(log, "PTP_RC_GeneralError"), 0);
    // Nothing drains the link: the next transaction reads the stale word as a length.
    logStart = LogSize();
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpReadContainer: packed length 5 below header"}));
}

TEST_F(TransactionTest, DataContainerHeaderIsChecked) {
    camera->InjectFault(Fault::Operation(Fault::DataCode, PTP_OC_Vendor, -1, 0x9998));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "GETDATA failed: wrong code"}));

    // The rest of that container is still on the pipe: start over on a fresh one.
    camera->Reset();
    ASSERT_EQ(link->PTPOpenSession(), ORQ_OK);
    logStart = LogSize();
    camera->InjectFault(Fault::Operation(Fault::DataLength, PTP_OC_Vendor, -1, 8));
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    EXPECT_TRUE(InOrder(
        Log(), {"PtpTransaction failed", "GETDATA failed: container length 8 below header"}));
}

TEST_F(TransactionTest, ShortDataPhaseFailsOnTheTailRead) {
    camera->InjectFault(Fault::Operation(Fault::TruncateData, orq::PTP_OC_GetObject, -1, 100));
    uint32_t handle = camera->AddFileOfSize(u"IMG_0001.JPG", 5000);
    orq::PtpDataBlock block;
    EXPECT_EQ(link->PTPGetObject(handle, block), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"UsbReadExactly failed", "PtpTransaction failed",
                                "GETDATA failed: tail data stage", "PTP_OC_GetObject failed"}));
}

TEST_F(TransactionTest, SilentCameraFailsEachStage) {
    camera->InjectFault(Fault::Operation(Fault::Stall, PTP_OC_Vendor, orq::ORQM_GetMode));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "GETDATA failed: can't read header"}));

    logStart = LogSize();
    camera->InjectFault(Fault::Operation(Fault::StallResponse, PTP_OC_Vendor, orq::ORQM_GetMode));
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    EXPECT_TRUE(
        InOrder(Log(), {"PtpReadContainer: packed length read failed", "PtpTransaction failed"}));

    logStart = LogSize();
    // A response whose body never comes.
    Bytes partial = Container(3, 0x2001, Words({1, 2}));
    partial.resize(10);
    camera->InjectFault(Raw(PTP_OC_Vendor, -1, partial));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(
        InOrder(Log(), {"PtpReadContainer: packed data read failed", "PtpTransaction failed"}));
}

TEST_F(TransactionTest, WriteFailuresFailTheTransaction) {
    camera->InjectFault(Fault::Transfer(Fault::TransferError, Pipe::Out, 1));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"Write failed -1", "PtpTransaction failed"}));

    logStart = LogSize();
    camera->InjectFault(Fault::Transfer(Fault::TransferShort, Pipe::Out, 1, 4));
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"usb write missmath bytes count: 16 4", "PtpTransaction failed"}));
    // Neither command reached the camera.
    EXPECT_TRUE(camera->Operations().empty());
}

TEST_F(TransactionTest, ShortReadsAreJoinedByTheTransport) {
    camera->InjectFault(Fault::Transfer(Fault::TransferShort, Pipe::In, 1, 5));
    camera->InjectFault(Fault::Transfer(Fault::TransferShort, Pipe::In, 3, 1));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_OK);
    EXPECT_EQ(mode, 1u);
}

TEST_F(TransactionTest, DisconnectInTheMiddleOfTheDataPhase) {
    uint32_t handle = camera->AddFileOfSize(u"IMG_0001.JPG", 100000);
    camera->InjectFault(Fault::Operation(Fault::Disconnect, orq::PTP_OC_GetObject, -1, 5000));
    orq::PtpDataBlock block;
    EXPECT_EQ(link->PTPGetObject(handle, block), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"UsbRead failed -4", "PtpTransaction failed",
                                "GETDATA failed: tail data stage", "PTP_OC_GetObject failed"}));
    EXPECT_TRUE(orqsim::VirtualBus::Instance().Paths().count(path) == 0);
    // The link is dead at once, without waiting for a timeout.
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Probe());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_F(TransactionTest, ClosedDeviceFailsWithoutTraffic) {
    link->ForceCloseUSB();
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "PtpTransaction: device is closed"}));
    EXPECT_TRUE(camera->Operations().empty());
}

TEST_F(TransactionTest, PayloadIsReadInOnePiece) {
    const size_t size = 3 * 1000 * 1000 + 7;
    uint32_t handle = camera->AddFileOfSize(u"IMG_0001.JPG", size);
    uint64_t reads = camera->BulkInCount();
    orq::PtpDataBlock block;
    ASSERT_EQ(link->PTPGetObject(handle, block), ORQ_OK);
    ASSERT_EQ(block.size, size);
    EXPECT_EQ(0, std::memcmp(block.data.get(), camera->FileBytes(handle)->data(), size));
    // Header, payload, response length, response rest.
    EXPECT_EQ(camera->BulkInCount() - reads, 4u);
}

TEST_F(TransactionTest, AbsurdDataLengthDoesNotCrash) {
    camera->InjectFault(Fault::Operation(Fault::DataLength, PTP_OC_Vendor, -1, 0xFFFFFFFF));
    uint32_t mode = 0;
    EXPECT_EQ(link->PTPGetMode(mode), ORQ_ERROR);
    // Either the block could not be had, or the camera never sent what it announced.
    auto log = Log();
    EXPECT_EQ(Count(log, "GETDATA failed: can't allocate 4294967283 bytes") +
                  Count(log, "GETDATA failed: tail data stage"),
              1);
}

#if !defined(_WIN32) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
class AllocationTest : public TransactionTest {
protected:
    // Runs in a child process whose address space is capped below what the camera announces.
    bool FailsCleanly() {
        rlimit limit{1u << 30, 1u << 30};
        setrlimit(RLIMIT_AS, &limit);
        camera->InjectFault(Fault::Operation(Fault::DataLength, PTP_OC_Vendor, -1, 0xF0000000));
        uint32_t mode = 0;
        if (link->PTPGetMode(mode) != ORQ_ERROR) return false;
        return InOrder(Log(),
                       {"PtpTransaction failed", "GETDATA failed: can't allocate 4026531828 bytes",
                        "PTP_ORQM_GetMode failed"});
    }
};

TEST_F(AllocationTest, DataBlockThatCannotBeAllocatedFailsTheTransaction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::_Exit(FailsCleanly() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
}  // namespace linktest
