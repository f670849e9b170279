// orq::exif::Stamp on pictures as cameras hand them over: without Exif, with Exif of their own,
// and cut short or garbled in transfer.
#include <gtest/gtest.h>
#include <libexif/exif-data.h>
#include <libexif/exif-utils.h>
#include <turbojpeg.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "exif/JpegExif.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kWidth = 64, kHeight = 48;
// 2026-11-26 01:50:00.123456 UTC
constexpr int64_t kReleaseUs = 1795657800123456;

Bytes Encode() {
    std::vector<unsigned char> rgb(kWidth * kHeight * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<unsigned char>(i * 7 % 251);
    tjhandle encoder = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    Bytes jpeg;
    if (tjCompress2(encoder, rgb.data(), kWidth, 0, kHeight, TJPF_RGB, &out, &size, TJSAMP_420, 85,
                    0) == 0)
        jpeg.assign(out, out + size);
    tjFree(out);
    tjDestroy(encoder);
    return jpeg;
}

Bytes Decode(const Bytes& jpeg) {
    tjhandle decoder = tjInitDecompress();
    Bytes rgb(kWidth * kHeight * 3);
    if (tjDecompress2(decoder, jpeg.data(), jpeg.size(), rgb.data(), kWidth, 0, kHeight, TJPF_RGB,
                      0) != 0)
        rgb.clear();
    tjDestroy(decoder);
    return rgb;
}

// The picture with an Exif segment of the camera's own, made here with libexif alone.
Bytes WithCameraExif(const Bytes& jpeg, const std::vector<std::pair<ExifTag, std::string>>& tags) {
    ExifData* data = exif_data_new();
    exif_data_set_byte_order(data, EXIF_BYTE_ORDER_MOTOROLA);
    for (const auto& [tag, text] : tags) {
        ExifEntry* entry = exif_entry_new();
        entry->tag = tag;
        entry->format = EXIF_FORMAT_ASCII;
        entry->components = text.size() + 1;
        entry->size = static_cast<unsigned int>(text.size() + 1);
        entry->data = static_cast<unsigned char*>(malloc(entry->size));
        std::memcpy(entry->data, text.c_str(), entry->size);
        const bool inIfd0 =
            tag == EXIF_TAG_MAKE || tag == EXIF_TAG_MODEL || tag == EXIF_TAG_IMAGE_DESCRIPTION;
        exif_content_add_entry(data->ifd[inIfd0 ? EXIF_IFD_0 : EXIF_IFD_EXIF], entry);
        exif_entry_unref(entry);
    }
    unsigned char* bytes = nullptr;
    unsigned int size = 0;
    exif_data_save_data(data, &bytes, &size);
    exif_data_unref(data);
    Bytes out(jpeg.size() + 4 + size);
    std::memcpy(out.data(), jpeg.data(), 2);
    const uint8_t marker[4] = {0xFF, 0xE1, static_cast<uint8_t>((size + 2) >> 8),
                               static_cast<uint8_t>(size + 2)};
    std::memcpy(out.data() + 2, marker, 4);
    std::memcpy(out.data() + 6, bytes, size);
    std::memcpy(out.data() + 6 + size, jpeg.data() + 2, jpeg.size() - 2);
    free(bytes);
    return out;
}

// Every tag of the file as text ("" when absent), read back with libexif.
struct Tags {
    explicit Tags(const Bytes& jpeg) : data(exif_data_new_from_data(jpeg.data(), jpeg.size())) {}
    ~Tags() { exif_data_unref(data); }
    std::string Text(ExifTag tag) const {
        ExifEntry* entry = data ? exif_data_get_entry(data, tag) : nullptr;
        if (!entry) return "";
        if (entry->format == EXIF_FORMAT_ASCII)
            return std::string(reinterpret_cast<const char*>(entry->data),
                               strnlen(reinterpret_cast<const char*>(entry->data), entry->size));
        const ExifByteOrder order = exif_data_get_byte_order(data);
        if (entry->format == EXIF_FORMAT_RATIONAL) {
            ExifRational r = exif_get_rational(entry->data, order);
            return std::to_string(r.numerator) + "/" + std::to_string(r.denominator);
        }
        return std::to_string(exif_get_short(entry->data, order));
    }
    ExifData* data;
};

orq::exif::Identity Node() {
    orq::exif::Identity identity;
    identity.make = "Orqwerk";
    identity.model = "SX160";
    identity.serial = "NODE-SERIAL-1";
    identity.timeUs = kReleaseUs;
    identity.focalHundredths = 1234;
    identity.focal35mm = 69;
    return identity;
}

class JpegExif : public ::testing::Test {
protected:
    void SetUp() override {
        plain = Encode();
        ASSERT_GT(plain.size(), 200u);
        pixels = Decode(plain);
        ASSERT_FALSE(pixels.empty());
    }
    orq::exif::Stamped Stamp(const Bytes& jpeg) {
        return orq::exif::Stamp(jpeg.data(), jpeg.size(), Node());
    }
    // The stamped file: the original but for one APP1 segment, and the same pixels.
    void ExpectOnlyExifChanged(const Bytes& before, const Bytes& after, size_t oldSegment) {
        ASSERT_GE(after.size(), 6u);
        const size_t segment = 2 + (size_t{after[4]} << 8 | after[5]);
        ASSERT_EQ(after[3], 0xE1);
        EXPECT_EQ(Bytes(after.begin() + 2 + segment, after.end()),
                  Bytes(before.begin() + 2 + oldSegment, before.end()));
        EXPECT_EQ(Decode(after), pixels);
    }
    Bytes plain, pixels;
};

TEST_F(JpegExif, APictureWithoutExifGetsTheNodesIdentity) {
    orq::exif::Stamped stamped = Stamp(plain);
    ASSERT_TRUE(stamped.ok) << stamped.why;
    ASSERT_TRUE(stamped.changed);
    ExpectOnlyExifChanged(plain, stamped.bytes, 0);
    Tags tags(stamped.bytes);
    EXPECT_EQ(tags.Text(EXIF_TAG_MAKE), "Orqwerk");
    EXPECT_EQ(tags.Text(EXIF_TAG_MODEL), "SX160");
    EXPECT_EQ(tags.Text(EXIF_TAG_BODY_SERIAL_NUMBER), "NODE-SERIAL-1");
    EXPECT_EQ(tags.Text(EXIF_TAG_DATE_TIME_ORIGINAL), "2026:11:26 01:50:00");
    EXPECT_EQ(tags.Text(EXIF_TAG_SUB_SEC_TIME_ORIGINAL), "123456");
    EXPECT_EQ(tags.Text(EXIF_TAG_OFFSET_TIME_ORIGINAL), "+00:00");
    EXPECT_EQ(tags.Text(EXIF_TAG_FOCAL_LENGTH), "1234/100");
    EXPECT_EQ(tags.Text(EXIF_TAG_FOCAL_LENGTH_IN_35MM_FILM), "69");

    // Stamped again: nothing is missing, so nothing changes.
    orq::exif::Stamped again = Stamp(stamped.bytes);
    EXPECT_TRUE(again.ok && !again.changed && again.bytes.empty());
}

TEST_F(JpegExif, WhatTheCameraWroteIsKept) {
    const Bytes own = WithCameraExif(plain, {{EXIF_TAG_MAKE, "Camwerk"},
                                             {EXIF_TAG_BODY_SERIAL_NUMBER, "CAMERA-OWN-7"},
                                             {EXIF_TAG_DATE_TIME_ORIGINAL, "2020:01:02 03:04:05"},
                                             {EXIF_TAG_IMAGE_DESCRIPTION, "kept as it is"}});
    const size_t ownSegment = 2 + (size_t{own[4]} << 8 | own[5]);
    orq::exif::Stamped stamped = Stamp(own);
    ASSERT_TRUE(stamped.ok) << stamped.why;
    ASSERT_TRUE(stamped.changed);
    ExpectOnlyExifChanged(own, stamped.bytes, ownSegment);
    Tags tags(stamped.bytes);
    EXPECT_EQ(tags.Text(EXIF_TAG_MAKE), "Camwerk");
    EXPECT_EQ(tags.Text(EXIF_TAG_BODY_SERIAL_NUMBER), "CAMERA-OWN-7");
    EXPECT_EQ(tags.Text(EXIF_TAG_DATE_TIME_ORIGINAL), "2020:01:02 03:04:05");
    EXPECT_EQ(tags.Text(EXIF_TAG_IMAGE_DESCRIPTION), "kept as it is");
    // The camera's time is in its own zone: sub-seconds added, no offset claimed.
    EXPECT_EQ(tags.Text(EXIF_TAG_SUB_SEC_TIME_ORIGINAL), "123456");
    EXPECT_EQ(tags.Text(EXIF_TAG_OFFSET_TIME_ORIGINAL), "");
    EXPECT_EQ(tags.Text(EXIF_TAG_MODEL), "SX160");
    EXPECT_EQ(tags.Text(EXIF_TAG_FOCAL_LENGTH), "1234/100");
}

// Files as a device may hand them over: each is refused with a reason, and never read past its end.
TEST_F(JpegExif, DamagedFilesAreRefused) {
    const Bytes own = WithCameraExif(plain, {{EXIF_TAG_BODY_SERIAL_NUMBER, "CAMERA-OWN-7"}});
    struct Case {
        const char* what;
        Bytes bytes;
    };
    std::vector<Case> cases = {
        {"empty", {}},
        {"not a JPEG", Bytes(plain.begin() + 2, plain.end())},
        {"cut in the headers", Bytes(plain.begin(), plain.begin() + 40)},
        {"cut in the image data", Bytes(plain.begin(), plain.end() - 20)},
        {"cut inside the Exif", Bytes(own.begin(), own.begin() + 30)},
    };
    Bytes garbled = own;  // the TIFF header's byte order
    garbled[12] = 'X';
    cases.push_back({"Exif of unknown byte order", garbled});
    garbled = own;  // IFD0 far past the segment
    garbled[16] = 0x7F;
    cases.push_back({"Exif whose first directory is elsewhere", garbled});
    garbled = own;  // the directory's entry count and first entry overwritten
    for (size_t i = 20; i < 32; ++i) garbled[i] = 0xFF;
    cases.push_back({"Exif whose directory is noise", garbled});
    garbled = own;  // a segment length that runs past the end
    garbled[4] = 0xFF;
    garbled[5] = 0xF0;
    cases.push_back({"a segment longer than the file", garbled});
    for (const Case& c : cases) {
        orq::exif::Stamped stamped = Stamp(c.bytes);
        EXPECT_FALSE(stamped.ok) << c.what;
        EXPECT_FALSE(stamped.why.empty()) << c.what;
        EXPECT_TRUE(stamped.bytes.empty()) << c.what;
    }

    // Noise anywhere in the headers: refused or stamped, never a crash (the sanitizer builds
    // see any read out of bounds), and a stamped file always decodes as before.
    std::mt19937 random(7);
    const size_t headers = std::min<size_t>(own.size(), 400);
    for (int round = 0; round < 2000; ++round) {
        Bytes noisy = own;
        for (int k = 0; k < 3; ++k) noisy[random() % headers] = static_cast<uint8_t>(random());
        orq::exif::Stamped stamped = Stamp(noisy);
        if (stamped.ok && stamped.changed) {
            ASSERT_EQ(stamped.bytes[0], 0xFF);
            ASSERT_EQ(stamped.bytes[1], 0xD8);
        }
    }
}

}  // namespace
