// Listing the card: file names as the SDK decodes them, the handle list, and the file table's
// way of finding the newest file.
#include "tests/support/support.h"

namespace linktest {
using namespace orqtest;
namespace {

using orq::PTP_OC_GetObjectInfo;

class FilesTest : public DeviceTest<> {
protected:
    FilesTest() { load = false; }
    // The decoded name of a file with this name on the card.
    std::u16string Decoded(const std::u16string& name) {
        camera->ClearCard();
        uint32_t handle = camera->AddFile(name, Bytes{1});
        OrqFileInfo info{};
        EXPECT_EQ(device->PTPGetObjectInfo(handle, info), ORQ_OK);
        return std::u16string(reinterpret_cast<const char16_t*>(info.name));
    }
};

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
                                   orqsim::RC_InvalidObjectHandle);
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
