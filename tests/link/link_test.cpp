// One virtual camera at the DeviceLL level, its properties not loaded: the transaction layer
// against a camera that misbehaves on the wire; the standard and vendor wrappers (what goes on the
// wire, what comes back, what each logs when refused); listing the card (file names as decoded,
// the handle list, the file table's way of finding the newest file).
#include <chrono>
#include <functional>
#include <thread>

#include "tests/support/support.h"

namespace linktest {
using namespace orqtest;
namespace {

using namespace std::chrono_literals;
using orq::DeviceLL;
using orq::PTP_NO_DATA;
using orq::PTP_OC_GetObjectInfo;
using orq::PTP_OC_Vendor;

class LinkTest : public DeviceTest<> {
public:
    LinkTest() { load = false; }
    // Operations of the two shapes: no data, and a short data phase.
    bool Probe() {
        return device->PtpTransactionRetry(PTP_OC_Vendor, {orq::ORQM_UpdateAEAF}, PTP_NO_DATA,
                                           nullptr, nullptr);
    }
    bool Mode() {
        uint32_t mode = 0;
        return device->PTPGetMode(mode) == ORQ_OK;
    }
    // The decoded name of a file with this name on the card.
    std::u16string Decoded(const std::u16string& name) {
        camera->ClearCard();
        uint32_t handle = camera->AddFile(name, Bytes{1});
        OrqFileInfo info{};
        EXPECT_EQ(device->PTPGetObjectInfo(handle, info), ORQ_OK);
        return std::u16string(reinterpret_cast<const char16_t*>(info.name));
    }
};
using TransactionTest = LinkTest;
using OperationsTest = LinkTest;
using FilesTest = LinkTest;

TEST_F(TransactionTest, TransactionIdRisesFromTheSessionsZeroFailuresIncluded) {
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_Shoot,
                                         orq::PTP_RC_DeviceBusy));
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
        Raw(PTP_OC_Vendor, orq::ORQM_GetMode, Container(3, orq::PTP_RC_DeviceBusy, Words({5}))));
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

// Somewhere for a wrapper to put what the test does not look at.
template <class T>
T& Out() {
    static T value;
    return value;
}

// The wrappers with parameters of their own and, of those that only send a sub-command (one shared
// path, differing in the line alone), the one whose line names another.
TEST_F(OperationsTest, WrappersSendTheirParametersAndLogTheirLine) {
    struct Row {
        uint16_t code;
        std::vector<uint32_t> params;  // as sent; a vendor operation's sub-command first
        const char* failure;           // the wrapper's own line
        std::function<OrqResult(DeviceLL&)> call;
    };
    using D = DeviceLL;
    const uint16_t V = PTP_OC_Vendor;
    // clang-format off
    const std::vector<Row> rows = {
        // Listing the handles asks for the storage id first, and stops where that fails.
        {orq::PTP_OC_GetStorageIDs, {}, "PTP_OC_GetStorageIDs failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_GetObjectHandles, {0x00010001, 0, 0}, "PTP_OC_GetObjectHandles failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_DeleteObject, {5, 0}, "PTP_OC_DeleteObject failed",
         [](D& d) { return d.PTPDeleteObject(5); }},
        {V, {129, 57, 1}, "PTP_ORQM_GetPropCase failed",
         [](D& d) { return d.PTPGetPropCase(57, Out<int32_t>()); }},
        // The camera module names both switches alike.
        {V, {155}, "PTP_ORQM_MfOn failed", [](D& d) { return d.PTPMfOff(); }},
        {V, {165, 1}, "PTP_ORQM_RemoteCaptureGetData failed",
         [](D& d) { return d.PTPRemoteCaptureGetData(Out<orq::PtpDataBlock>(),
                                                     Out<std::vector<uint32_t>>()); }},
        // Last: the camera is left without a session.
        {orq::PTP_OC_OpenSession, {1}, "PTP_OC_OpenSession failed",
         [](D& d) { return d.PTPOpenSession(); }},
    };
    // clang-format on
    for (const Row& row : rows) {
        const int64_t subCommand = row.code == V ? row.params[0] : -1;
        SCOPED_TRACE(std::string(row.failure) + " " + std::to_string(subCommand));
        camera->ClearOperations();
        camera->InjectFault(
            Fault::Operation(Fault::ResponseCode, row.code, subCommand, orq::PTP_RC_AccessDenied));
        logStart = LogSize();
        EXPECT_EQ(row.call(*device), ORQ_ERROR);
        auto ops = camera->Operations();
        ASSERT_FALSE(ops.empty());
        EXPECT_EQ(ops.back().code, row.code);
        EXPECT_EQ(ops.back().params, row.params);
        EXPECT_EQ(camera->CountOperations(row.code), 1u);
        EXPECT_EQ(Count(Log(), row.failure), 1);
    }
}

TEST_F(OperationsTest, GettersTakeWhatTheBlockHoldsAndNoMore) {
    uint32_t current = 1, maximum = 1, minimum = 1;
    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetVBat, DataThen(Words({3700}))));
    ASSERT_EQ(device->PTPGetVBat(current, maximum, minimum), ORQ_OK);
    EXPECT_EQ((std::vector<uint32_t>{current, maximum, minimum}),
              (std::vector<uint32_t>{3700, 0, 0}));

    std::vector<uint32_t> words{42};
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, -1, 0x2005));
    EXPECT_EQ(device->PTPORQMGet(orq::ORQM_GetFocusParams, 2, words), ORQ_ERROR);
    EXPECT_EQ(words, (std::vector<uint32_t>{42}));
    EXPECT_EQ(Count(Log(), "PTPORQMGet failed: 157"), 1);

    // Version text after the first zero byte is not part of it; without one it ends with the block.
    const std::pair<Bytes, std::string> versions[] = {{{'3', '.', '2', 0, '9', '9'}, "3.2"},
                                                      {{'4', '.', '0'}, "4.0"}};
    for (const auto& [bytes, text] : versions) {
        camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetOrqmVersion, DataThen(bytes)));
        std::string version;
        ASSERT_EQ(device->PTPGetOrqmVersion(version), ORQ_OK);
        EXPECT_EQ(version, text);
    }
}

TEST_F(OperationsTest, ModeWaitPollsUntilRecordModeOrAFailure) {
    const uint16_t getMode = orq::ORQM_GetMode;
    camera->InjectFault(Raw(PTP_OC_Vendor, getMode, DataThen(Words({0}))));
    EXPECT_EQ(device->PTPWaitRecMode(), ORQ_OK);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, getMode), 2u);

    camera->SetCameraMode(0);
    Fault refused =
        Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, getMode, orq::PTP_RC_AccessDenied);
    refused.skip = 1;
    camera->InjectFault(refused);
    EXPECT_EQ(device->PTPWaitRecMode(), ORQ_ERROR);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, getMode), 4u);
}

TEST_F(OperationsTest, EventBitsReachTheirReaderOnly) {
    camera->RaiseEvents(orq::SHOOT_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    // An empty mask clears nothing.
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));

    // The direct-transfer reader consumes no bit of the others.
    camera->RaiseEvents(0xFFFF);
    device->ShootDirectEvent();
    EXPECT_FALSE(device->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
}

static_assert(sizeof(OrqChar) == sizeof(char16_t), "names are 16-bit units");

TEST_F(FilesTest, NamesKeepTheLowByteOfEachUnitWidenedWithItsSign) {
    EXPECT_EQ(Decoded(u"IMG_0001.JPG"), u"IMG_0001.JPG");
    // 0x0141 loses its high byte; 0xE9 becomes 0xFFE9.
    EXPECT_EQ(Decoded(u"\u0141x\u00e9.jpg"), u"Ax\uffe9.jpg");
    // A unit whose low byte is zero ends the name.
    EXPECT_EQ(Decoded(u"ab\u0100cd.jpg"), u"ab");
    EXPECT_EQ(Decoded(u""), u"");
    // 199 characters and the terminator: the first 127 are kept.
    std::u16string longName(199, u'n');
    EXPECT_EQ(Decoded(longName), std::u16string(127, u'n'));
}

TEST_F(FilesTest, DatasetsAreReadNoFurtherThanTheySpan) {
    // The camera announces 200 name units and sends three.
    Bytes dataset(52, 0);
    dataset[8] = 77;  // the size
    dataset.insert(dataset.end(), {200, 'a', 0, 'b', 0, 'c', 0});
    camera->InjectFault(Raw(PTP_OC_GetObjectInfo, -1, DataThen(dataset, 0x1008)));
    OrqFileInfo info{};
    ASSERT_EQ(device->PTPGetObjectInfo(5, info), ORQ_OK);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info.name)), u"abc");
    EXPECT_EQ(info.size, 77u);
    EXPECT_EQ(info.id, 5);
    // A dataset that ends before the name field gives an empty name.
    camera->InjectFault(Raw(PTP_OC_GetObjectInfo, -1, DataThen(Bytes(20, 0), 0x1008)));
    ASSERT_EQ(device->PTPGetObjectInfo(5, info), ORQ_OK);
    EXPECT_EQ(info.name[0], 0);
}

TEST_F(FilesTest, HandleListsAreBoundedAndMustHoldTheirCount) {
    const uint16_t handlesCode = orq::PTP_OC_GetObjectHandles;
    camera->InjectFault(Raw(handlesCode, -1, DataThen(Words({3, 10, 11}), handlesCode)));
    std::vector<uint32_t> handles;
    EXPECT_EQ(device->PTPGetObjectHandles(handles), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "getObjectHandles failed: 3 handles announced, 2 sent"), 1);

    ASSERT_EQ(device->PTPGetObjectHandles(handles), ORQ_OK);  // the folders
    for (size_t i = handles.size(); i < 5120; ++i) camera->AddFile(u"a.txt", {});
    ASSERT_EQ(device->PTPGetObjectHandles(handles), ORQ_OK);
    EXPECT_EQ(handles.size(), 5120u);
    camera->AddFile(u"a.txt", {});
    EXPECT_EQ(device->PTPGetObjectHandles(handles), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "getObjectHandles failed: to many objects"), 1);
}

TEST_F(FilesTest, OneBadObjectFailsTheListingAndLeavesTheTable) {
    camera->AddFile(u"IMG_0001.JPG", Bytes{1});
    camera->AddFile(u"IMG_0002.JPG", Bytes{2});
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    int32_t latest = device->LatestFileId();

    camera->AddFile(u"IMG_0003.JPG", Bytes{3});
    Fault fault = Fault::Operation(Fault::ResponseCode, PTP_OC_GetObjectInfo, -1,
                                   orq::PTP_RC_InvalidObjectHandle);
    fault.skip = 1;
    camera->InjectFault(fault);
    logStart = LogSize();
    EXPECT_EQ(device->PTPUpdateObjectsInfo(), ORQ_ERROR);
    EXPECT_TRUE(InOrder(
        Log(), {"PTPUpdateObjectsInfo", "PTP_OC_GetObjectInfo failed", "PTPGetFilesInfo failed"}));
    EXPECT_EQ(device->FileTable().size(), 2u);
    EXPECT_EQ(device->LatestFileId(), latest);
}

// The first listing compares against an empty table; the first new file in the camera's order is
// the latest.
TEST_F(FilesTest, TableKeepsPicturesAndMoviesAndNamesTheFirstNewFile) {
    const std::pair<const char16_t*, bool> names[] = {
        {u".jpg", false},    {u"IMG_0001.JPG", true}, {u"notes.txt", false},
        {u"clip.MoV", true}, {u"x.jpeg", false},      {u"a.jpg", true}};
    std::vector<int32_t> kept;
    for (const auto& [name, keep] : names) {
        int32_t handle = static_cast<int32_t>(camera->AddFile(name, Bytes{1}));
        if (keep) kept.push_back(handle);
    }
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    std::vector<int32_t> ids;
    for (const OrqFileInfo& file : device->FileTable()) ids.push_back(file.id);
    EXPECT_EQ(ids, kept);
    EXPECT_EQ(device->LatestFileId(), kept[0]);

    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    EXPECT_EQ(device->LatestFileId(), -1);
    // A known handle whose size changed counts as new; a removal leaves no trace.
    camera->ReplaceFile(kept[1], Bytes(21));
    camera->RemoveFile(kept[0]);
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    EXPECT_EQ(device->LatestFileId(), kept[1]);
    EXPECT_EQ(device->FileTable().size(), kept.size() - 1);
}

}  // namespace
}  // namespace linktest
