// The transaction layer against a camera that misbehaves on the wire.
#include <chrono>
#include <thread>

#include "tests/support/support.h"

namespace linktest {
using namespace orqtest;
namespace {

using namespace std::chrono_literals;
using orq::PTP_NO_DATA;
using orq::PTP_OC_Vendor;

class TransactionTest : public DeviceTest<> {
public:
    TransactionTest() { load = false; }
    // Operations of the two shapes: no data, and a short data phase.
    bool Probe() {
        return device->PtpTransactionRetry(PTP_OC_Vendor, {orq::ORQM_UpdateAEAF}, PTP_NO_DATA,
                                           nullptr, nullptr);
    }
    bool Mode() {
        uint32_t mode = 0;
        return device->PTPGetMode(mode) == ORQ_OK;
    }
};

TEST_F(TransactionTest, TransactionIdRisesFromTheSessionsZeroFailuresIncluded) {
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_Shoot,
                                         orqsim::RC_DeviceBusy));
    EXPECT_TRUE(Probe());
    EXPECT_EQ(device->PTPShoot(), ORQ_ERROR);
    EXPECT_TRUE(Probe());
    ASSERT_EQ(device->PTPOpenSession(), ORQ_OK);
    EXPECT_TRUE(Probe());
    std::vector<uint32_t> ids;
    for (const auto& op : camera->Operations()) ids.push_back(op.transactionId);
    EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3, 0, 1}));
    EXPECT_EQ(camera->Operations().at(3).code, orq::PTP_OC_OpenSession);
}

TEST_F(TransactionTest, EmptyDataAndShortResponses) {
    orq::PtpDataBlock block;
    ASSERT_EQ(device->PTPGetMemory(0x1234, 0, block), ORQ_OK);
    EXPECT_EQ(block.size, 0u);
    // Response parameters are five words, zero-filled: a bare 12-byte response, one with two.
    const uint16_t ready = orq::ORQM_RemoteCaptureIsReady;
    std::vector<uint32_t> params{7, 7};
    camera->InjectFault(Raw(PTP_OC_Vendor, ready, Container(3, 0x2001)));
    ASSERT_TRUE(device->PtpTransactionRetry(PTP_OC_Vendor, {ready}, PTP_NO_DATA, nullptr, &params));
    EXPECT_EQ(params, (std::vector<uint32_t>(5, 0)));
    camera->InjectFault(Raw(PTP_OC_Vendor, ready, Container(3, 0x2001, Words({9, 8}))));
    ASSERT_TRUE(device->PtpTransactionRetry(PTP_OC_Vendor, {ready}, PTP_NO_DATA, nullptr, &params));
    EXPECT_EQ(params, (std::vector<uint32_t>{9, 8, 0, 0, 0}));
}

TEST_F(TransactionTest, EachBrokenStageFailsOnceWithItsLinesAndTheEdgesPass) {
    auto vendor = [](Fault::Kind kind, uint32_t value = 0) {
        return Fault::Operation(kind, PTP_OC_Vendor, -1, value);
    };
    Bytes partial = Container(3, 0x2001, Words({1, 2}));
    partial.resize(10);  // a response whose body never comes
    Fault empty = Fault::Transfer(Fault::TransferShort, Pipe::In, 1, 0);
    empty.times = -1;  // empty packets without end
    using T = TransactionTest;
    struct Case {
        Fault fault;
        bool (TransactionTest::*call)();
        std::vector<std::string> lines;  // besides "PtpTransaction failed"; none: it passes
    } cases[] = {
        // clang-format off
        // Passing quietly: the longest response, and the operation code echoed in place of OK.
        {vendor(Fault::ResponseLength, 512), &T::Probe, {}},
        {vendor(Fault::EchoCode), &T::Probe, {}},
        {vendor(Fault::ResponseLength, 513), &T::Probe, {"PtpReadContainer: packed to long"}},
        {vendor(Fault::ResponseLength, 8), &T::Probe,
         {"PtpReadContainer: packed length 8 below header"}},
        {vendor(Fault::ResponseType, 2), &T::Probe, {"incorrect response type 2"}},
        {vendor(Fault::ResponseCode, 0x2005), &T::Probe, {"incorrect response code 8197"}},
        {vendor(Fault::DataCode, 0x9998), &T::Mode, {"GETDATA failed: wrong code"}},
        {vendor(Fault::DataLength, 8), &T::Mode,
         {"GETDATA failed: container length 8 below header"}},
        // Beyond what the operation can need: refused before anything is allocated.
        {vendor(Fault::DataLength, 0xFFFFFFFF), &T::Mode,
         {"GETDATA failed: container length 4294967295 above limit 33554432"}},
        {vendor(Fault::Stall), &T::Mode, {"GETDATA failed: can't read header"}},
        {vendor(Fault::StallResponse), &T::Mode, {"PtpReadContainer: packed length read failed"}},
        {Raw(PTP_OC_Vendor, -1, partial), &T::Probe, {"PtpReadContainer: packed data read failed"}},
        {vendor(Fault::TruncateData, 2), &T::Mode,
         {"UsbReadExactly failed", "GETDATA failed: tail data stage", "PTP_ORQM_GetMode failed"}},
        {Fault::Transfer(Fault::TransferError, Pipe::Out, 1), &T::Probe, {"Write failed -1"}},
        {empty, &T::Mode, {"UsbRead failed -7", "UsbReadExactly failed"}},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        // What a broken answer leaves on the pipe is not this case's business: start over.
        camera->Reset();
        ASSERT_EQ(device->PTPOpenSession(), ORQ_OK);
        camera->ClearOperations();
        logStart = LogSize();
        camera->InjectFault(c.fault);
        EXPECT_EQ((this->*c.call)(), c.lines.empty());
        auto log = Log();
        if (c.lines.empty()) {
            EXPECT_TRUE(log.empty());
        } else {
            EXPECT_TRUE(InOrder(log, c.lines));
        }
        EXPECT_EQ(Count(log, "PtpTransaction failed"), c.lines.empty() ? 0 : 1);
        EXPECT_EQ(Count(log, "PTP_RC_GeneralError"), 0);
        // None of these is retried; a command that could not be written never arrived.
        EXPECT_EQ(camera->Operations().size(),
                  c.fault.PerTransfer() && c.fault.pipe == Pipe::Out ? 0u : 1u);
    }
}

TEST_F(TransactionTest, GeneralErrorIsRetriedThriceWithSleepsOutsideTheLock) {
    camera->InjectFault(Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_Shoot));
    std::thread shooter([&] { EXPECT_EQ(device->PTPShoot(), ORQ_OK); });
    // While the shooter sleeps before its second attempt, another thread gets through.
    while (camera->CountOperations(PTP_OC_Vendor, orq::ORQM_Shoot) == 0) {
        std::this_thread::sleep_for(1ms);
    }
    // It does not wait out the 300 ms sleep (the order below alone would depend on which thread
    // the freed lock goes to).
    auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(Probe());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 250ms);
    shooter.join();
    std::vector<int64_t> order;
    for (const auto& op : camera->Operations()) order.push_back(op.SubCommand());
    EXPECT_EQ(order,
              (std::vector<int64_t>{orq::ORQM_Shoot, orq::ORQM_UpdateAEAF, orq::ORQM_Shoot}));

    Fault always = Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_Shoot);
    always.times = -1;
    camera->InjectFault(always);
    camera->ClearOperations();
    logStart = LogSize();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(device->PTPShoot(), ORQ_ERROR);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_Shoot), 3u);
    EXPECT_TRUE(InOrder(
        Log(), {"PTP_RC_GeneralError", "PtpTransaction failed", "incorrect response code 8194",
                "PTP General Error. Retry 0", "PTP General Error. Retry 1",
                "PTP General Error. Retry 2", "PTP_ORQM_Shoot failed"}));
}

TEST_F(TransactionTest, ResponseInPlaceOfData) {
    // A general error is consumed whole and retried.
    camera->InjectFault(Fault::Operation(Fault::GeneralError, PTP_OC_Vendor, orq::ORQM_GetMode));
    EXPECT_TRUE(Mode());
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 2u);
    EXPECT_TRUE(InOrder(Log(), {"GETDATA failed: wrong CONTAINER_DATA", "PTP_RC_GeneralError",
                                "PTP General Error. Retry 0"}));

    // Any other fails; of a busy response with one parameter twelve bytes are taken as the
    // header and four remain.
    camera->ClearOperations();
    logStart = LogSize();
    camera->InjectFault(
        Raw(PTP_OC_Vendor, orq::ORQM_GetMode, Container(3, orqsim::RC_DeviceBusy, Words({5}))));
    EXPECT_FALSE(Mode());
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 1u);
    EXPECT_TRUE(
        InOrder(Log(), {"GETDATA failed: wrong CONTAINER_DATA", "PTP_ORQM_GetMode failed"}));
    // Nothing drains the link: the next transaction reads the stale word as a length.
    logStart = LogSize();
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpReadContainer: packed length 5 below header"}));
}

TEST_F(TransactionTest, ClosedDeviceSendsNothing) {
    device->ForceCloseUSB();
    EXPECT_FALSE(Probe());
    EXPECT_TRUE(InOrder(Log(), {"PtpTransaction failed", "PtpTransaction: device is closed"}));
    EXPECT_TRUE(camera->Operations().empty());
}

// A file brings no more than the camera lists for it: refused before anything is allocated.
TEST_F(TransactionTest, DeclaredObjectSizeIsBoundedBeforeAllocating) {
    const uint32_t handle = camera->AddFile(u"IMG_0001.JPG", Bytes(100, 7));
    camera->InjectFault(Fault::Operation(Fault::DataLength, orq::PTP_OC_GetObject, -1, 12 + 101));
    orq::PtpDataBlock block;
    EXPECT_EQ(device->PTPGetObject(handle, block), ORQ_ERROR);
    EXPECT_TRUE(InOrder(Log(), {"GETDATA failed: container length 113 above limit 100",
                                "PTP_OC_GetObject failed"}));
}

}  // namespace
}  // namespace linktest
