// The property engine of one DeviceLL against a virtual camera: loading and translation, the set
// pipeline, constraints, compound writes, camera mode and battery level.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "tests/support/support.h"

namespace {

using orqsim::VirtualCamera;
using Sent = std::vector<std::pair<int64_t, std::vector<uint32_t>>>;

constexpr int64_t kSetPropCase = 130, kSetCaptureMode = 160;

class Camera : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;
    void OnPropertyChanged(int id) override { changed.push_back(id); }
    void OnPropertyListChanged() override { ++listChanges; }
    int Value(int id) { return propertyValues.at(id); }

    std::vector<int> changed;
    int listChanges = 0;
};

// A camera of a model, its cases set by `prepare` before loading.
struct Rig : orqtest::Rig<Camera> {
    explicit Rig(const std::string& model, std::function<void(VirtualCamera&)> prepare = {}) {
        orqsim::CameraOptions options;
        options.model = model;
        loaded = Open(options, true, prepare);
    }
    // Vendor operations since the load (or the last call), with their further parameters.
    Sent Take() {
        Sent ops;
        for (const auto& op : camera->Operations()) {
            if (op.SubCommand() < 0) continue;
            ops.emplace_back(op.SubCommand(),
                             std::vector<uint32_t>(op.params.begin() + 1, op.params.end()));
        }
        camera->ClearOperations();
        return ops;
    }
    OrqResult loaded = ORQ_ERROR;
};

std::pair<int64_t, std::vector<uint32_t>> Set(uint32_t propCase, int32_t raw) {
    return {kSetPropCase, {propCase, static_cast<uint32_t>(raw)}};
}

bool Lists(Camera& camera, int id) {
    int* list = nullptr;
    int count = -1;
    EXPECT_EQ(camera.GetPropertyList(&list, &count), ORQ_OK);
    const bool found = std::find(list, list + count, id) != list + count;
    camera.FreePointer(list);
    return found;
}

// The values GetPropertyDesc offers, copied out of the block it hands out.
std::vector<int> Offered(Camera& camera, int id) {
    OrqPropertyDesc* desc = nullptr;
    EXPECT_EQ(camera.GetPropertyDesc(id, &desc), ORQ_OK);
    std::vector<int> values(desc->values, desc->values + desc->count);
    camera.FreePointer(desc);
    return values;
}

TEST(PropertyLoad, TranslatesRawValuesStopsAtAnUnknownOneAndStartsSdkOnlySettingsOff) {
    // SX130 keeps negatives signed: the 16-bit form is no value of its table.
    Rig wrongForm("SX130", [](VirtualCamera& c) { c.SetPropCase(211, 65344); });
    EXPECT_EQ(wrongForm.loaded, ORQ_ERROR);
    EXPECT_EQ(wrongForm.Logged("Unknown property value: 10 65344"), 1);
    Rig badMode("A810", [](VirtualCamera& c) { c.SetModeWheel(12345); });
    EXPECT_EQ(badMode.loaded, ORQ_ERROR);
    EXPECT_EQ(badMode.Logged("Unsupported camera mode: 12345. Check camera mode"), 1);

    Rig rig("SX160", [](VirtualCamera& c) {
        c.SetPropCase(107, 65344);
        c.SetZoomPosition(40);
    });
    ASSERT_EQ(rig.loaded, ORQ_OK);
    Camera& cam = *rig.device;
    EXPECT_EQ(cam.Value(10), 0);
    EXPECT_EQ(cam.GetZoom(), 40);
    int any = 0;
    EXPECT_EQ(cam.GetPropertyData(12, &any), ORQ_UNKNOWN_PROPERTY);
    // Known to the SDK alone, both start Off. Direct Transfer is set without asking the camera;
    // Manual Focus Mode sends its command each time.
    EXPECT_EQ(cam.Value(24), 1);
    EXPECT_EQ(cam.Value(25), 1);
    EXPECT_EQ(cam.SetPropertyData(24, 0), ORQ_OK);
    EXPECT_TRUE(rig.Take().empty());
    EXPECT_EQ(cam.Value(24), 0);
    EXPECT_EQ(cam.SetPropertyData(25, 0), ORQ_OK);
    EXPECT_EQ(cam.SetPropertyData(25, 1), ORQ_OK);
    EXPECT_EQ(cam.SetPropertyData(25, 1), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{{154, {}}, {155, {}}, {155, {}}}));
    rig.camera->InjectFault(orqsim::Fault::Operation(orqsim::Fault::ResponseCode, 0x9999, 154,
                                                     orq::PTP_RC_AccessDenied));
    EXPECT_EQ(cam.SetPropertyData(25, 0), ORQ_ERROR);
    EXPECT_EQ(rig.Logged("PTPManualFocusEnable failed: 0"), 1);
}

TEST(PropertySet, ChecksComeInOrderAndTheModeAndMyColorsShowAndHideProperties) {
    Rig rig("G15", [](VirtualCamera& c) { c.SetModeWheel(32772); });  // Program
    ASSERT_EQ(rig.loaded, ORQ_OK);
    Camera& cam = *rig.device;
    EXPECT_EQ(cam.SetPropertyData(12, 0), ORQ_UNKNOWN_PROPERTY);
    EXPECT_EQ(cam.SetPropertyData(13, 0), ORQ_ERROR);  // read-only before value checks
    EXPECT_EQ(rig.Logged("failed to set read only property"), 1);
    EXPECT_EQ(cam.SetPropertyData(7, 99), ORQ_PROPERTY_CONSTRAINT);
    EXPECT_EQ(rig.Logged("Unsupported property value: 7 99"), 1);
    // Av and Tv are hidden in Program, the colour adjustments without Custom My Colors: not
    // listed, nothing offered, not to be set.
    EXPECT_FALSE(Lists(cam, 8) || Lists(cam, 9) || Lists(cam, 16));
    EXPECT_TRUE(Offered(cam, 8).empty());
    EXPECT_EQ(cam.SetPropertyData(8, 40), ORQ_PROPERTY_CONSTRAINT);
    EXPECT_EQ(rig.Logged("Property set constraint failed: 8 40"), 1);
    EXPECT_TRUE(rig.Take().empty());  // no refusal reached the camera

    // The mode alone is not rewritten with its current value.
    EXPECT_EQ(cam.SetPropertyData(0, cam.Value(0)), ORQ_OK);
    EXPECT_TRUE(rig.Take().empty());
    EXPECT_EQ(cam.SetPropertyData(3, cam.Value(3)), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{Set(157, 0)}));
    EXPECT_EQ(cam.SetPropertyData(0, 3), ORQ_OK);  // Av
    EXPECT_EQ(rig.Take(), (Sent{{kSetCaptureMode, {32770}}}));
    EXPECT_TRUE(Lists(cam, 8) && !Lists(cam, 9));
    EXPECT_EQ(cam.listChanges, 1);
    EXPECT_EQ(cam.SetPropertyData(8, 40), ORQ_OK);
    // The colour adjustments come with Custom My Colors.
    EXPECT_EQ(cam.SetPropertyData(15, 11), ORQ_OK);
    EXPECT_TRUE(Lists(cam, 16) && Lists(cam, 22));
    EXPECT_EQ(cam.listChanges, 2);

    // The wheel turned at the camera, and then to a mode the profile lacks.
    rig.camera->SetModeWheel(32771);  // Tv
    EXPECT_EQ(cam.ReadCameraMode(), ORQ_OK);
    EXPECT_EQ(cam.ReadCameraMode(), ORQ_OK);
    EXPECT_EQ(cam.changed, (std::vector<int>{0}));
    EXPECT_TRUE(Lists(cam, 9) && !Lists(cam, 8));
    rig.camera->SetModeWheel(54321);
    EXPECT_EQ(cam.ReadCameraMode(), ORQ_ERROR);
    EXPECT_EQ(cam.Value(0), 4);
}

// A description carries the size of each offered image size, and only the battery is read-only.
// The largest image size steps the quality down first.
TEST(ImageSize, DescriptionsCarryTheSizesAndTheLargestStepsQualityDownFirst) {
    Rig rig("A1400", [](VirtualCamera& c) {
        c.SetPropCase(221, 1);
        c.SetPropCase(167, 0);  // Superfine, allowed below the largest size
    });
    ASSERT_EQ(rig.loaded, ORQ_OK);
    Camera& cam = *rig.device;
    for (int id : {1, 7, 13}) {
        SCOPED_TRACE(id);
        OrqPropertyDesc* desc = nullptr;
        ASSERT_EQ(cam.GetPropertyDesc(id, &desc), ORQ_OK);
        EXPECT_EQ(desc->readOnly, id == 13 ? 1 : 0);
        EXPECT_EQ(desc->sizes != nullptr, id == 1);
        std::vector<std::pair<int, int>> sizes;
        for (int i = 0; desc->sizes && i < desc->count; ++i)
            sizes.emplace_back(desc->sizes[i].width, desc->sizes[i].height);
        cam.FreePointer(desc);
        if (id == 1) {
            EXPECT_EQ(sizes,
                      (std::vector<std::pair<int, int>>{
                          {4608, 3456}, {3264, 2448}, {1600, 1200}, {640, 480}, {2304, 1728}}));
        }
    }

    EXPECT_EQ(Offered(cam, 2), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(cam.SetPropertyData(1, 0), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{Set(167, 1), Set(221, 0)}));
    EXPECT_EQ(cam.changed, (std::vector<int>{2}));  // the set property raises nothing itself
    EXPECT_EQ(cam.listChanges, 1);
    EXPECT_EQ(cam.Value(2), 1);
    EXPECT_EQ(Offered(cam, 2), (std::vector<int>{1, 2, 3}));
    // Back to a smaller size: quality stays, Superfine is on offer again.
    EXPECT_EQ(cam.SetPropertyData(1, 5), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{Set(221, 7)}));
    EXPECT_EQ(cam.changed.size(), 1u);
    EXPECT_EQ(cam.listChanges, 2);
}

TEST(CompoundProperty, FlashPowerLoadsFromTwoCasesAndWritesOneOrBoth) {
    struct Case {
        int32_t adjust, output;
        int value;  // -1: the load fails with `line`
        const char* line;
    };
    // In Auto the manual output is not looked at, whatever it holds.
    for (Case c : {Case{0, 3, 0, ""}, Case{1, 0, 1, ""}, Case{1, 2, 3, ""},
                   Case{2, 0, -1, "Unknown value of FlashAdjustMode property"},
                   Case{1, 3, -1, "Unknown value of FlashManualOutput property"}}) {
        SCOPED_TRACE(testing::Message() << "adjust " << c.adjust << " output " << c.output);
        Rig rig("A495", [&](VirtualCamera& sim) {
            sim.SetPropCase(121, c.adjust);
            sim.SetPropCase(141, c.output);
        });
        EXPECT_EQ(rig.loaded, c.value < 0 ? ORQ_ERROR : ORQ_OK);
        if (c.value >= 0) {
            EXPECT_EQ(rig.device->Value(23), c.value);
        } else {
            EXPECT_EQ(rig.Logged(c.line), 1);
            EXPECT_EQ(rig.Logged("LoadFlashPowerProp failed"), 1);
        }
    }

    Rig rig("A495");
    ASSERT_EQ(rig.loaded, ORQ_OK);
    EXPECT_EQ(rig.device->SetPropertyData(23, 3), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{Set(121, 1), Set(141, 2)}));
    EXPECT_EQ(rig.device->SetPropertyData(23, 0), ORQ_OK);
    EXPECT_EQ(rig.Take(), (Sent{Set(121, 0)}));  // the manual output is left where it was
}

TEST(CompoundProperty, SubCasesFollowTheMainCaseWithTheSameRawValue) {
    Rig rig("A810");
    ASSERT_EQ(rig.loaded, ORQ_OK);
    EXPECT_EQ(rig.device->SetPropertyData(6, 1), ORQ_OK);  // inverted on the camera: raw 0
    EXPECT_EQ(rig.Take(), (Sent{Set(220, 0), Set(217, 0), Set(5, 0)}));

    // A failing second case: the first stays written, the third is never sent, the new value kept.
    orqsim::Fault fault = orqsim::Fault::Operation(orqsim::Fault::ResponseCode, 0x9999,
                                                   kSetPropCase, orq::PTP_RC_AccessDenied);
    fault.skip = 1;
    rig.camera->InjectFault(fault);
    EXPECT_EQ(rig.device->SetPropertyData(6, 0), ORQ_ERROR);
    EXPECT_EQ(rig.Logged("PTP_ORQM_SetPropCase failed (SubPropery2 - 1)"), 1);
    EXPECT_EQ(rig.Take(), (Sent{Set(220, 1), Set(217, 1)}));
    EXPECT_EQ(rig.device->Value(6), 0);
    EXPECT_TRUE(rig.device->changed.empty());
}

TEST(BatteryLevel, LevelsFromTheAverageLowFromTheSample) {
    Rig rig("SX500");
    ASSERT_EQ(rig.loaded, ORQ_OK);
    Camera& cam = *rig.device;
    // A first read starts the average on the sample; an average on a threshold keeps the lower.
    for (auto [present, level] : {std::pair{450, 0}, {451, 1}, {701, 2}, {951, 3}}) {
        rig.camera->SetBattery(present, 1000, 0);
        EXPECT_EQ(cam.ReadBatteryLevel(true), ORQ_OK);
        EXPECT_EQ(cam.Value(13), level) << present;
    }
    EXPECT_TRUE(cam.changed.empty());

    // Later reads move the average slowly and report each change of level once.
    rig.camera->SetBattery(1000, 1000, 0);
    EXPECT_EQ(cam.ReadBatteryLevel(true), ORQ_OK);
    rig.camera->SetBattery(500, 1000, 0);
    int reads = 0;
    for (; cam.Value(13) > 1 && reads < 100; ++reads)
        ASSERT_EQ(cam.ReadBatteryLevel(false), ORQ_OK);
    EXPECT_GT(reads, 10);
    EXPECT_EQ(cam.changed, (std::vector<int>{13, 13}));
    // One low sample ends it, though the average stands well above the cutoff.
    rig.camera->SetBattery(199, 1000, 0);
    EXPECT_EQ(cam.ReadBatteryLevel(false), ORQ_BATTERY_LOW);
    EXPECT_EQ(cam.Value(13), 1);
    // On external power the level is 4 at once; a reading with no range does not hang the count.
    rig.camera->SetBattery(1001, 1000, 0);
    EXPECT_EQ(cam.ReadBatteryLevel(false), ORQ_OK);
    EXPECT_EQ(cam.Value(13), 4);
    rig.camera->SetBattery(5, 5, 5);
    EXPECT_EQ(cam.ReadBatteryLevel(false), ORQ_OK);
    EXPECT_EQ(cam.Value(13), 0);

    Rig low("SX500", [](VirtualCamera& c) { c.SetBattery(3400, 4200, 3300); });
    EXPECT_EQ(low.loaded, ORQ_BATTERY_LOW);
    EXPECT_EQ(low.Logged("ReadBatteryLevel failed"), 1);
}

}  // namespace
