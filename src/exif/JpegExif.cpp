#include "exif/JpegExif.h"

#include <libexif/exif-data.h>
#include <libexif/exif-log.h>
#include <libexif/exif-mem.h>
#include <libexif/exif-utils.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace orq::exif {

namespace {

const uint8_t kExifHeader[6] = {'E', 'x', 'i', 'f', 0, 0};
// An APP1 segment's length field counts itself: 65535 at most.
constexpr size_t kLargestPayload = 65535 - 2;

struct Place {
    size_t at = 2;    // where the Exif segment is, or goes
    size_t size = 0;  // its bytes, marker included; 0 when the file has none
};

// Every segment up to the scan must lie inside the file, and the coded data must end with EOI:
// a file cut short in transfer is told apart here, before anything is written.
std::string Walk(const uint8_t* d, size_t n, Place& place) {
    if (n < 4 || d[0] != 0xFF || d[1] != 0xD8) return "not a JPEG (no SOI)";
    size_t at = 2;
    for (;;) {
        if (at + 2 > n) return "the file ends before the image data";
        if (d[at] != 0xFF) return "no marker where a segment should start";
        while (at + 2 < n && d[at + 1] == 0xFF) ++at;  // fill bytes
        const uint8_t marker = d[at + 1];
        if (marker == 0xD8 || marker == 0xD9 || marker == 0x00 || marker == 0xFF)
            return "a stray marker before the image data";
        if ((marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
            at += 2;
            continue;
        }
        if (at + 4 > n) return "a segment runs past the end of the file";
        const size_t length = size_t{d[at + 2]} << 8 | d[at + 3];
        if (length < 2 || length > n - at - 2) return "a segment runs past the end of the file";
        if (marker == 0xE1 && place.size == 0 && length >= 2 + sizeof kExifHeader &&
            std::memcmp(d + at + 4, kExifHeader, sizeof kExifHeader) == 0) {
            place.at = at;
            place.size = 2 + length;
        }
        at += 2 + length;
        if (marker != 0xDA) continue;
        // In coded data 0xFF is followed by 0x00 or a restart marker: FF D9 is the end alone.
        for (const uint8_t* p = d + at; p + 1 < d + n; ++p) {
            p = static_cast<const uint8_t*>(std::memchr(p, 0xFF, static_cast<size_t>(d + n - p)));
            if (!p || p + 1 >= d + n) break;
            if (p[1] == 0xD9) return "";
        }
        return "the image data has no end (EOI): the file is cut short";
    }
}

// libexif returns quietly on some faults and logs others: both refuse the segment.
bool TiffHeaderSound(const uint8_t* tiff, size_t size) {
    if (size < 8) return false;
    ExifByteOrder order;
    if (std::memcmp(tiff, "II", 2) == 0) {
        order = EXIF_BYTE_ORDER_INTEL;
    } else if (std::memcmp(tiff, "MM", 2) == 0) {
        order = EXIF_BYTE_ORDER_MOTOROLA;
    } else {
        return false;
    }
    const size_t ifd0 = exif_get_long(tiff + 4, order);
    if (exif_get_short(tiff + 2, order) != 42 || ifd0 < 8 || ifd0 > size - 2) return false;
    // The first directory, its entries and the link to the next, whole inside the segment:
    // libexif would read what fits and drop the rest without a word, the camera's tags with it.
    const size_t entries = exif_get_short(tiff + ifd0, order);
    return ifd0 + 2 + 12 * entries + 4 <= size;
}

void NoteCorrupt(ExifLog*, ExifLogCode code, const char*, const char*, va_list, void* flag) {
    if (code == EXIF_LOG_CODE_CORRUPT_DATA || code == EXIF_LOG_CODE_NO_MEMORY)
        *static_cast<bool*>(flag) = true;
}

struct Library {
    ExifMem* mem = exif_mem_new_default();
    ExifLog* log = exif_log_new_mem(mem);
    ExifData* data = exif_data_new_mem(mem);
    bool corrupt = false;

    Library() {
        if (!data || !log) return;
        exif_log_set_func(log, NoteCorrupt, &corrupt);
        exif_data_log(data, log);
        // Unknown tags and a maker's note are the camera's: kept as they are, and no tag the
        // standard asks for is made up.
        exif_data_unset_option(data, EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
        exif_data_unset_option(data, EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
        exif_data_set_option(data, EXIF_DATA_OPTION_DONT_CHANGE_MAKER_NOTE);
    }
    ~Library() {
        if (data) exif_data_unref(data);
        if (log) exif_log_unref(log);
        if (mem) exif_mem_unref(mem);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    bool Has(ExifTag tag) const { return exif_data_get_entry(data, tag) != nullptr; }

    // A new entry of the tag in that IFD; false when memory ran out.
    bool Add(ExifIfd ifd, ExifTag tag, ExifFormat format, unsigned long components,
             const void* bytes, size_t size) {
        ExifEntry* entry = exif_entry_new_mem(mem);
        if (!entry) return false;
        entry->data = static_cast<unsigned char*>(exif_mem_alloc(mem, static_cast<ExifLong>(size)));
        if (!entry->data) {
            exif_entry_unref(entry);
            return false;
        }
        std::memcpy(entry->data, bytes, size);
        entry->size = static_cast<unsigned int>(size);
        entry->tag = tag;
        entry->format = format;
        entry->components = components;
        exif_content_add_entry(data->ifd[ifd], entry);
        exif_entry_unref(entry);
        return true;
    }
    bool AddText(ExifIfd ifd, ExifTag tag, const std::string& text) {
        return Add(ifd, tag, EXIF_FORMAT_ASCII, text.size() + 1, text.c_str(), text.size() + 1);
    }
};

// The identity's tags that the file lacks; how many were added, -1 when memory ran out.
int AddMissing(Library& exif, const Identity& identity) {
    int added = 0;
    bool ok = true;
    auto text = [&](ExifIfd ifd, ExifTag tag, const std::string& value) {
        if (value.empty() || exif.Has(tag)) return;
        ok = ok && exif.AddText(ifd, tag, value);
        ++added;
    };
    text(EXIF_IFD_0, EXIF_TAG_MAKE, identity.make);
    text(EXIF_IFD_0, EXIF_TAG_MODEL, identity.model);
    text(EXIF_IFD_EXIF, EXIF_TAG_BODY_SERIAL_NUMBER, identity.serial);
    if (identity.timeUs > 0) {
        // A camera's own time is in its own zone, which we do not know: no offset beside it.
        if (!exif.Has(EXIF_TAG_DATE_TIME_ORIGINAL)) {
            text(EXIF_IFD_EXIF, EXIF_TAG_DATE_TIME_ORIGINAL, DateTime(identity.timeUs));
            text(EXIF_IFD_EXIF, EXIF_TAG_OFFSET_TIME_ORIGINAL, identity.offset);
        }
        text(EXIF_IFD_EXIF, EXIF_TAG_SUB_SEC_TIME_ORIGINAL, SubSeconds(identity.timeUs));
    }
    const ExifByteOrder order = exif_data_get_byte_order(exif.data);
    if (identity.focalHundredths > 0 && !exif.Has(EXIF_TAG_FOCAL_LENGTH)) {
        unsigned char bytes[8];
        exif_set_rational(bytes, order, ExifRational{identity.focalHundredths, 100});
        ok = ok && exif.Add(EXIF_IFD_EXIF, EXIF_TAG_FOCAL_LENGTH, EXIF_FORMAT_RATIONAL, 1, bytes,
                            sizeof bytes);
        ++added;
    }
    if (identity.focal35mm > 0 && !exif.Has(EXIF_TAG_FOCAL_LENGTH_IN_35MM_FILM)) {
        unsigned char bytes[2];
        exif_set_short(bytes, order, identity.focal35mm);
        ok = ok && exif.Add(EXIF_IFD_EXIF, EXIF_TAG_FOCAL_LENGTH_IN_35MM_FILM, EXIF_FORMAT_SHORT, 1,
                            bytes, sizeof bytes);
        ++added;
    }
    return ok ? added : -1;
}

// The segment of what exif holds, marker and length included; empty when it does not fit.
std::vector<uint8_t> Serialise(Library& exif) {
    unsigned char* bytes = nullptr;
    unsigned int size = 0;
    exif_data_save_data(exif.data, &bytes, &size);
    std::vector<uint8_t> segment;
    if (bytes && size > 0 && size <= kLargestPayload) {
        segment.resize(4 + size_t{size});
        segment[0] = 0xFF;
        segment[1] = 0xE1;
        segment[2] = static_cast<uint8_t>((size + 2) >> 8);
        segment[3] = static_cast<uint8_t>((size + 2) & 0xFF);
        std::memcpy(segment.data() + 4, bytes, size);
    }
    if (bytes) exif_mem_free(exif.mem, bytes);
    return segment;
}

int64_t DaysToCivil(int64_t days, int& month, int& day) {
    // Days since 1970-01-01 to a proleptic Gregorian date (eras of 400 years).
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t shifted = (5 * dayOfYear + 2) / 153;
    day = static_cast<int>(dayOfYear - (153 * shifted + 2) / 5 + 1);
    month = static_cast<int>(shifted < 10 ? shifted + 3 : shifted - 9);
    return yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
}

}  // namespace

std::string DateTime(int64_t timeUs) {
    const int64_t seconds = timeUs / 1000000;
    const int64_t days = seconds / 86400, inDay = seconds % 86400;
    int month = 0, day = 0;
    const int64_t year = DaysToCivil(days, month, day);
    char text[64];
    std::snprintf(text, sizeof text, "%04lld:%02d:%02d %02d:%02d:%02d",
                  static_cast<long long>(year), month, day, static_cast<int>(inDay / 3600),
                  static_cast<int>(inDay / 60 % 60), static_cast<int>(inDay % 60));
    return text;
}

std::string SubSeconds(int64_t timeUs) {
    char text[16];
    std::snprintf(text, sizeof text, "%06d", static_cast<int>(timeUs % 1000000));
    return text;
}

Stamped Stamp(const uint8_t* data, size_t size, const Identity& identity) {
    Stamped result;
    if (!data || size > kLargestJpeg) {
        result.why = "not read: larger than the largest picture";
        return result;
    }
    Place place;
    result.why = Walk(data, size, place);
    if (!result.why.empty()) return result;
    Library exif;
    if (!exif.data || !exif.log) {
        result.why = "out of memory";
        return result;
    }
    if (place.size > 0) {
        const uint8_t* payload = data + place.at + 4;
        const size_t length = place.size - 4;
        if (!TiffHeaderSound(payload + sizeof kExifHeader, length - sizeof kExifHeader)) {
            result.why = "its Exif segment has no sound TIFF header";
            return result;
        }
        exif_data_load_data(exif.data, payload, static_cast<unsigned int>(length));
        if (exif.corrupt) {
            result.why = "its Exif segment does not parse";
            return result;
        }
    } else {
        exif_data_set_byte_order(exif.data, EXIF_BYTE_ORDER_INTEL);
    }
    const int added = AddMissing(exif, identity);
    if (added < 0) {
        result.why = "out of memory";
        return result;
    }
    result.ok = true;
    if (added == 0) return result;
    std::vector<uint8_t> segment = Serialise(exif);
    if (segment.empty()) {
        result.ok = false;
        result.why = "its Exif would not fit in one segment";
        return result;
    }
    result.changed = true;
    result.bytes.reserve(size - place.size + segment.size());
    result.bytes.insert(result.bytes.end(), data, data + place.at);
    result.bytes.insert(result.bytes.end(), segment.begin(), segment.end());
    result.bytes.insert(result.bytes.end(), data + place.at + place.size, data + size);
    return result;
}

std::vector<uint8_t> Segment(const Identity& identity) {
    Library exif;
    if (!exif.data || !exif.log) return {};
    exif_data_set_byte_order(exif.data, EXIF_BYTE_ORDER_INTEL);
    if (AddMissing(exif, identity) <= 0) return {};
    return Serialise(exif);
}

}  // namespace orq::exif
