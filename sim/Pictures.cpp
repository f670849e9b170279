// Stills are put together from 16 x 16 tiles. The file declares a restart interval of one MCU, so
// every tile's entropy-coded data stands alone, and one tile encoded as a small JPEG of its own
// gives exactly the bytes it needs in a picture of any size. Tiles are a few colours of bars and
// the pieces of the label's glyphs, so a process encodes each of them once; a shot of 16
// megapixels then costs a walk over its tiles and a copy, not a full encode.
#include "sim/Pictures.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "sim/Font.h"

#ifdef ORQ_SIM_TURBOJPEG
#include <turbojpeg.h>
#endif
#ifdef ORQ_SIM_EXIF
#include "exif/JpegExif.h"
#endif

namespace orqsim {

uint32_t Seed(const std::string& text) {
    uint32_t hash = 2166136261u;
    for (char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
    return hash;
}

namespace {

constexpr int kTile = 16;
constexpr int kQuality = 90;
constexpr int kMaxSide = 16384;

// "2026-11-25 22:41:07" from seconds since 1970, UTC.
std::string TimeText(int64_t seconds) {
    int64_t days = seconds / 86400, rest = seconds % 86400;
    if (rest < 0) rest += 86400, --days;
    // Civil date from a day count (proleptic Gregorian).
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t doe = days - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t day = doy - (153 * mp + 2) / 5 + 1;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yoe + era * 400 + (month <= 2);
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(year),
                  static_cast<int>(month), static_cast<int>(day), static_cast<int>(rest / 3600),
                  static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
    return text;
}

std::vector<std::string> LabelLines(const PictureLabel& label) {
    char shot[32];
    std::snprintf(shot, sizeof shot, "SHOT %04u", label.shot);
    return {label.model, label.serial, shot, TimeText(label.time) + " UTC"};
}

// What one tile shows: paper, or ink where the mask's bit is set (bit 15 is the leftmost pixel).
struct Tile {
    uint32_t paper = 0;  // 0xRRGGBB
    uint32_t ink = 0;
    std::array<uint16_t, kTile> mask{};

    bool Flat() const {
        for (uint16_t row : mask) {
            if (row) return false;
        }
        return true;
    }
    bool operator==(const Tile& other) const {
        return paper == other.paper && ink == other.ink && mask == other.mask;
    }
    void Render(uint8_t* rgb, size_t stride, int columns, int rows) const {
        for (int y = 0; y < rows; ++y) {
            uint8_t* p = rgb + static_cast<size_t>(y) * stride;
            for (int x = 0; x < columns; ++x, p += 3) {
                const uint32_t c = (mask[static_cast<size_t>(y)] >> (15 - x) & 1) ? ink : paper;
                p[0] = static_cast<uint8_t>(c >> 16);
                p[1] = static_cast<uint8_t>(c >> 8);
                p[2] = static_cast<uint8_t>(c);
            }
        }
    }
};

struct TileHash {
    size_t operator()(const Tile& tile) const {
        uint64_t hash = 1469598103934665603ull ^ tile.paper ^ (uint64_t{tile.ink} << 24);
        for (uint16_t row : tile.mask) hash = (hash ^ row) * 1099511628211ull;
        return static_cast<size_t>(hash);
    }
};

// A flat tile of one colour, always in the same form, so that equal tiles meet in the caches.
Tile Flat(uint32_t colour) {
    return Tile{colour, colour, {}};
}

constexpr uint32_t kPaper = 0xF4F4F0, kInk = 0x101010;
// Bars at 75 %, their checker squares darker, and a grey ramp at the foot.
constexpr uint32_t kBars[8] = {0xBFBFBF, 0xBFBF00, 0x00BFBF, 0x00BF00,
                               0xBF00BF, 0xBF0000, 0x0000BF, 0x404040};

uint32_t Darker(uint32_t c) {
    uint32_t r = (c >> 16 & 0xFF) * 5 / 8, g = (c >> 8 & 0xFF) * 5 / 8, b = (c & 0xFF) * 5 / 8;
    return r << 16 | g << 8 | b;
}

// Where everything lies in a picture: the label box on whole tiles, the text centred in it.
struct Layout {
    int width = 0, height = 0, tilesX = 0, tilesY = 0;
    int boxX0 = 0, boxY0 = 0, boxX1 = 0, boxY1 = 0;  // in tiles, end exclusive
    int textX = 0, textY = 0;                        // in pixels
    uint32_t seed = 0;
    std::vector<std::string> lines;
    TextBlock text;

    Layout(const PictureLabel& label, int w, int h)
        : width(w),
          height(h),
          tilesX((w + kTile - 1) / kTile),
          tilesY((h + kTile - 1) / kTile),
          seed(Seed(label.serial)),
          lines(LabelLines(label)),
          text(lines, ScaleFor(label, w, h)) {
        const int margin = std::max(text.Scale() * 2, 4);
        boxX0 = std::max(0, (w - text.Width()) / 2 - margin) / kTile;
        boxY0 = std::max(0, (h - text.Height()) / 2 - margin) / kTile;
        boxX1 =
            std::min(tilesX, (std::min(w, (w + text.Width()) / 2 + margin) + kTile - 1) / kTile);
        boxY1 =
            std::min(tilesY, (std::min(h, (h + text.Height()) / 2 + margin) + kTile - 1) / kTile);
        textX = (boxX0 + boxX1) * kTile / 2 - text.Width() / 2;
        textY = (boxY0 + boxY1) * kTile / 2 - text.Height() / 2;
    }

    // The text spans about three quarters of the width, and at most half the height.
    static int ScaleFor(const PictureLabel& label, int w, int h) {
        const auto cells = static_cast<int>(std::max<size_t>(LongestLine(LabelLines(label)), 1));
        return std::max(1, std::min(w * 3 / 4 / (cells * 6), h / 2 / (4 * 9)));
    }

    // What a row of tiles depends on: the picture's size, the bars' order, where the box and
    // the text lie, and the lines of text that cross the row. Rows of equal keys are equal.
    std::string RowKey(int ty) const {
        std::string key = std::to_string(width) + "x" + std::to_string(height) + " " +
                          std::to_string(ty) + " " + std::to_string(seed % 8) + " " +
                          std::to_string(text.Scale()) + " " + std::to_string(text.Width()) + "x" +
                          std::to_string(text.Height());
        const int lineHeight = text.Height() / static_cast<int>(std::max<size_t>(lines.size(), 1));
        for (size_t i = 0; i < lines.size(); ++i) {
            const int top = textY + static_cast<int>(i) * lineHeight;
            if (ty * kTile < top + lineHeight && top < (ty + 1) * kTile) key += "\n" + lines[i];
        }
        return key;
    }

    Tile At(int tx, int ty) const {
        Tile tile{kPaper, kInk, {}};
        if (tx >= boxX0 && tx < boxX1 && ty >= boxY0 && ty < boxY1) {
            tile.paper = kPaper;
            tile.ink = kInk;
            const int x0 = tx * kTile - textX, y0 = ty * kTile - textY;
            // Tiles wholly outside the text are paper: no pixel to look at.
            if (x0 + kTile <= 0 || y0 + kTile <= 0 || x0 >= text.Width() || y0 >= text.Height()) {
                return Flat(kPaper);
            }
            for (int y = 0; y < kTile; ++y)
                tile.mask[static_cast<size_t>(y)] = text.InkRow(x0, y0 + y);
            if (std::all_of(tile.mask.begin(), tile.mask.end(),
                            [](uint16_t r) { return r == 0xFFFF; })) {
                tile = Tile{kInk, kInk, {}};
            }
            return tile;
        }
        const int rampRows = std::max(1, tilesY / 8);
        if (ty >= tilesY - rampRows) {
            const auto grey = static_cast<uint32_t>(tx * 15 / std::max(1, tilesX - 1) * 17);
            return Flat(grey << 16 | grey << 8 | grey);
        }
        const int cell = std::max(1, tilesY / 6);
        const uint32_t bar = kBars[(static_cast<uint32_t>(tx * 8 / tilesX) + seed) % 8];
        return Flat(((tx / cell + ty / cell) & 1) ? Darker(bar) : bar);
    }
};

#ifdef ORQ_SIM_TURBOJPEG

using Segment = std::shared_ptr<const Bytes>;

// Each tile's entropy-coded data, encoded once per process. All tiles share one set of headers
// (same size, quality and tables); a tile whose headers differ means the encoder was configured
// otherwise behind our back, and pictures are then encoded whole.
class TileCache {
public:
    static TileCache& Instance() {
        // Never destroyed: a camera may finish a picture while the process exits.
        static TileCache* cache = new TileCache;
        return *cache;
    }

    bool Header(Bytes& out) {
        std::lock_guard<std::mutex> guard(lock);
        if (header.empty() && !EncodeLocked(Flat(kPaper))) return false;
        out = header;
        return true;
    }

    Segment Get(const Tile& tile) {
        std::lock_guard<std::mutex> guard(lock);
        auto found = segments.find(tile);
        if (found != segments.end()) return found->second;
        return EncodeLocked(tile) ? segments[tile] = last : nullptr;
    }

private:
    TileCache() : encoder(tjInitCompress()) {}

    // Encodes one tile as a JPEG of its own and keeps its entropy-coded data in `last`.
    bool EncodeLocked(const Tile& tile) {
        if (!encoder) return false;
        uint8_t rgb[kTile * kTile * 3];
        tile.Render(rgb, kTile * 3, kTile, kTile);
        unsigned char* out = buffer.data();
        unsigned long size = buffer.size();
        if (tjCompress2(encoder, rgb, kTile, 0, kTile, TJPF_RGB, &out, &size, TJSAMP_420, kQuality,
                        TJFLAG_NOREALLOC) != 0) {
            return false;
        }
        // Markers up to and including the scan header, then the data, then EOI.
        size_t at = 2, data = 0;
        while (at + 4 <= size && out[at] == 0xFF) {
            const size_t length = size_t{out[at + 2]} << 8 | out[at + 3];
            if (out[at + 1] == 0xDA) {
                data = at + 2 + length;
                break;
            }
            at += 2 + length;
        }
        if (data == 0 || data + 2 > size || out[size - 2] != 0xFF || out[size - 1] != 0xD9) {
            return false;
        }
        Bytes head(out, out + data);
        if (header.empty()) header = head;
        if (head != header) return false;
        last = std::make_shared<const Bytes>(out + data, out + size - 2);
        // Glyph pieces of many sizes are kept; a process that somehow made millions starts over.
        if (segments.size() > 100000) segments.clear();
        return true;
    }

    std::mutex lock;
    tjhandle encoder;
    std::vector<unsigned char> buffer =
        std::vector<unsigned char>(tjBufSize(kTile, kTile, TJSAMP_420));
    Bytes header;
    Segment last;
    std::unordered_map<Tile, Segment, TileHash> segments;
};

// The Exif segment of a still, right after SOI; nothing where the label asks for none or the
// build has no libexif.
void PutExif(const PictureLabel& label, Bytes& out) {
#ifdef ORQ_SIM_EXIF
    if (label.make.empty()) return;
    orq::exif::Identity identity;
    identity.make = label.make;
    identity.model = label.model;
    identity.serial = label.serial;
    identity.timeUs = label.timeUs;
    identity.focalHundredths = label.focalHundredths;
    identity.focal35mm = label.focal35mm;
    const std::vector<uint8_t> segment = orq::exif::Segment(identity);
    out.insert(out.begin() + 2, segment.begin(), segment.end());
#else
    (void)label;
    (void)out;
#endif
}

void Put16(Bytes& out, size_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

// The shared headers made to fit the picture: its size in the frame header, a comment naming
// the camera and the shot, and a restart interval of one MCU before the scan.
bool PictureHeader(const PictureLabel& label, int width, int height, Bytes& out) {
    Bytes tile;
    if (!TileCache::Instance().Header(tile)) return false;
    size_t at = 2, scan = 0;
    out.assign(tile.begin(), tile.begin() + 2);
    PutExif(label, out);
    while (at + 4 <= tile.size()) {
        const size_t length = size_t{tile[at + 2]} << 8 | tile[at + 3];
        if (tile[at + 1] == 0xDA) {
            scan = at;
            break;
        }
        const size_t start = out.size();
        out.insert(out.end(), tile.begin() + static_cast<std::ptrdiff_t>(at),
                   tile.begin() + static_cast<std::ptrdiff_t>(at + 2 + length));
        if (tile[at + 1] == 0xC0) {
            out[start + 5] = static_cast<uint8_t>(height >> 8);
            out[start + 6] = static_cast<uint8_t>(height);
            out[start + 7] = static_cast<uint8_t>(width >> 8);
            out[start + 8] = static_cast<uint8_t>(width);
        }
        at += 2 + length;
    }
    if (scan == 0) return false;
    std::string comment = "Orq virtual camera " + label.model + " serial " + label.serial +
                          " shot " + std::to_string(label.shot) + " " + TimeText(label.time) +
                          " UTC";
    comment.resize(std::min<size_t>(comment.size(), 1000));
    out.push_back(0xFF);
    out.push_back(0xFE);
    Put16(out, comment.size() + 2);
    out.insert(out.end(), comment.begin(), comment.end());
    const uint8_t restart[] = {0xFF, 0xDD, 0x00, 0x04, 0x00, 0x01};
    out.insert(out.end(), restart, restart + sizeof restart);
    out.insert(out.end(), tile.begin() + static_cast<std::ptrdiff_t>(scan), tile.end());
    return true;
}

// The picture encoded in one go: the way out when tiles cannot be had.
Bytes WholePicture(const Layout& layout) {
    std::vector<uint8_t> rgb(static_cast<size_t>(layout.width) * layout.height * 3);
    const size_t stride = static_cast<size_t>(layout.width) * 3;
    for (int ty = 0; ty < layout.tilesY; ++ty) {
        for (int tx = 0; tx < layout.tilesX; ++tx) {
            layout.At(tx, ty).Render(rgb.data() + ty * kTile * stride + tx * kTile * 3, stride,
                                     std::min(kTile, layout.width - tx * kTile),
                                     std::min(kTile, layout.height - ty * kTile));
        }
    }
    std::unique_ptr<void, int (*)(tjhandle)> encoder(tjInitCompress(), tjDestroy);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    Bytes bytes;
    if (encoder && tjCompress2(encoder.get(), rgb.data(), layout.width, 0, layout.height, TJPF_RGB,
                               &out, &size, TJSAMP_420, kQuality, 0) == 0) {
        bytes.assign(out, out + size);
    }
    tjFree(out);
    return bytes;
}

// One row of tiles: its coded segments and their bytes.
struct Row {
    std::vector<Segment> segments;
    size_t bytes = 0;
};
using RowRef = std::shared_ptr<const Row>;

class RowCache {
public:
    static RowCache& Instance() {
        static RowCache* cache = new RowCache;  // never destroyed, as the tile cache
        return *cache;
    }
    RowRef Find(const std::string& key) {
        std::lock_guard<std::mutex> guard(lock);
        auto found = rows.find(key);
        return found == rows.end() ? nullptr : found->second;
    }
    void Put(const std::string& key, RowRef row) {
        std::lock_guard<std::mutex> guard(lock);
        // Rows of shot numbers and times gone by are of no more use: start over now and then.
        if (rows.size() >= 8192) rows.clear();
        rows.emplace(key, std::move(row));
    }

private:
    std::mutex lock;
    std::unordered_map<std::string, RowRef> rows;
};

// Tiles repeat within a picture (bars, paper, glyph pieces): each is looked up in the
// process's tile cache, under its lock, once per picture (`seen`).
RowRef BuildRow(const Layout& layout, int ty, std::unordered_map<Tile, Segment, TileHash>& seen) {
    auto row = std::make_shared<Row>();
    row->segments.reserve(static_cast<size_t>(layout.tilesX));
    TileCache& cache = TileCache::Instance();
    Tile previous = Flat(kPaper);
    Segment last;
    for (int tx = 0; tx < layout.tilesX; ++tx) {
        const Tile tile = layout.At(tx, ty);
        if (!last || !(tile == previous)) {
            Segment& known = seen[tile];
            if (!known) known = cache.Get(tile);
            last = known;
            previous = tile;
        }
        if (!last) return nullptr;
        row->bytes += last->size();
        row->segments.push_back(last);
    }
    return row;
}

// Builds the picture into `out`, or with `out` null only counts its bytes.
size_t Compose(const PictureLabel& label, int width, int height, Bytes* out) {
    if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) return 0;
    const Layout layout(label, width, height);
    Bytes header;
    bool tiled = PictureHeader(label, width, height, header);
    // Most rows of a picture are those of the camera's last picture of that size, or of any
    // camera's: only the rows the shot number and time cross are put together anew.
    std::vector<RowRef> rows;
    size_t total = header.size() + 2 * static_cast<size_t>(layout.tilesX) * layout.tilesY;
    std::unordered_map<Tile, Segment, TileHash> seen;
    for (int ty = 0; ty < layout.tilesY && tiled; ++ty) {
        const std::string key = layout.RowKey(ty);
        RowRef row = RowCache::Instance().Find(key);
        if (!row) {
            row = BuildRow(layout, ty, seen);
            if (!row) {
                tiled = false;
                break;
            }
            RowCache::Instance().Put(key, row);
        }
        total += row->bytes;
        rows.push_back(std::move(row));
    }
    if (!tiled) {
        Bytes whole = WholePicture(layout);
        if (!whole.empty()) PutExif(label, whole);
        if (out) *out = std::move(whole);
        return out ? out->size() : whole.size();
    }
    if (!out) return total;
    out->clear();
    out->reserve(total);
    out->insert(out->end(), header.begin(), header.end());
    size_t i = 0;
    for (const RowRef& row : rows) {
        for (const Segment& segment : row->segments) {
            if (i++ > 0) {
                out->push_back(0xFF);
                out->push_back(static_cast<uint8_t>(0xD0 + ((i - 2) & 7)));
            }
            out->insert(out->end(), segment->begin(), segment->end());
        }
    }
    out->push_back(0xFF);
    out->push_back(0xD9);
    return out->size();
}

#endif  // ORQ_SIM_TURBOJPEG

}  // namespace

#ifdef ORQ_SIM_TURBOJPEG
bool JpegPicturesBuilt() {
    return true;
}

Bytes StillPicture(const PictureLabel& label, int width, int height) {
    Bytes out;
    Compose(label, width, height, &out);
    return out;
}

size_t StillPictureSize(const PictureLabel& label, int width, int height) {
    return Compose(label, width, height, nullptr);
}
#else
bool JpegPicturesBuilt() {
    return false;
}

Bytes StillPicture(const PictureLabel&, int, int) {
    return {};
}

size_t StillPictureSize(const PictureLabel&, int, int) {
    return 0;
}
#endif

// Content that looks like a JPEG to anyone who checks the markers.
Bytes JpegLike(size_t size, uint32_t seed) {
    Bytes bytes(std::max<size_t>(size, 4));
    // A pseudo-random block from the seed, then copies of what is there in doubling blocks: a
    // shot of megabytes costs a few copies, not a generator step per byte.
    constexpr size_t kBlock = 4096;
    uint32_t x = seed * 2654435761u + 1;
    const size_t head = std::min(bytes.size(), kBlock);
    for (size_t i = 0; i < head; ++i) {
        x = x * 1664525u + 1013904223u;
        bytes[i] = static_cast<uint8_t>(x >> 24);
    }
    for (size_t filled = head; filled < bytes.size();) {
        const size_t n = std::min(filled, bytes.size() - filled);
        std::memcpy(bytes.data() + filled, bytes.data(), n);
        filled += n;
    }
    bytes[0] = 0xFF;
    bytes[1] = 0xD8;
    bytes[bytes.size() - 2] = 0xFF;
    bytes[bytes.size() - 1] = 0xD9;
    return bytes;
}

// ---------------------------------------------------------------------------------------------
// Live view

Bytes LiveViewFrame(const LiveViewScene& scene, size_t size) {
    Bytes bytes(size);
    const int width = static_cast<int>(std::clamp<uint32_t>(scene.width, 4, kMaxSide));
    const int height = static_cast<int>(std::clamp<uint32_t>(scene.height, 1, kMaxSide));
    const int groups = (width - 1) / 4 + 1;
    const size_t rowBytes = static_cast<size_t>(groups) * 6;
    // The lens: from 1x at the wide end to 4x at the long end.
    const double scale = 1.0 + 3.0 * std::clamp(scene.zoom, 0, std::max(scene.maxZoom, 1)) /
                                   std::max(scene.maxZoom, 1);
    const double cell = 24.0 * scale;
    const int barWidth = std::max(4, width / 16);
    const int barX = static_cast<int>(scene.frame * 7 % static_cast<uint64_t>(width));
    char counter[32];
    std::snprintf(counter, sizeof counter, "F %06llu",
                  static_cast<unsigned long long>(scene.frame));
    const TextBlock text({scene.model, counter}, std::max(1, height / 120));
    const int textX = 8, textY = 8;
    const auto tintU = static_cast<int8_t>(static_cast<int>(scene.seed & 0x3F) - 32);
    const auto tintV = static_cast<int8_t>(static_cast<int>(scene.seed >> 6 & 0x3F) - 32);

    for (size_t row = 0; (row + 1) * rowBytes <= size || row * rowBytes < size; ++row) {
        const int y = static_cast<int>(row % static_cast<size_t>(height));
        const double v = (y - height / 2) / cell + 1000.0;
        for (int group = 0; group < groups; ++group) {
            const size_t at = row * rowBytes + static_cast<size_t>(group) * 6;
            uint8_t luma[4];
            bool inText = false, inBar = false;
            for (int k = 0; k < 4; ++k) {
                const int x = group * 4 + k;
                const double u = (x - width / 2) / cell + 1000.0;
                const bool light = (static_cast<int>(u) + static_cast<int>(v)) & 1;
                uint8_t value = light ? 170 : 70;
                if (x >= barX && x < barX + barWidth) {
                    value = 235;
                    inBar = true;
                }
                const int tx = x - textX + 4, ty = y - textY + 4;
                if (tx >= 0 && ty >= 0 && tx < text.Width() + 8 && ty < text.Height() + 8) {
                    value = text.Ink(tx - 4, ty - 4) ? 250 : 16;
                    inText = true;
                }
                luma[k] = value;
            }
            const bool neutral = inText || inBar;
            const auto u = static_cast<uint8_t>(neutral ? 0 : tintU);
            const auto v8 = static_cast<uint8_t>(neutral ? 0 : tintV);
            const uint8_t group6[6] = {u, luma[0], v8, luma[1], luma[2], luma[3]};
            std::memcpy(bytes.data() + at, group6, std::min<size_t>(6, size - std::min(size, at)));
        }
    }
    return bytes;
}

// ---------------------------------------------------------------------------------------------
// Movies

namespace {

void Be32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void Be16(Bytes& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

// An atom: its size, its type, then what `body` writes.
template <class Body>
void Atom(Bytes& out, const char* type, Body body) {
    const size_t start = out.size();
    Be32(out, 0);
    out.insert(out.end(), type, type + 4);
    body();
    const auto size = static_cast<uint32_t>(out.size() - start);
    for (int i = 0; i < 4; ++i) out[start + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
}

void Matrix(Bytes& out) {
    for (uint32_t v : {0x00010000u, 0u, 0u, 0u, 0x00010000u, 0u, 0u, 0u, 0x40000000u}) Be32(out, v);
}

}  // namespace

Bytes Movie(const PictureLabel& label, uint32_t milliseconds) {
    constexpr uint32_t kFrameMs = 100, kWidth = 160, kHeight = 120;
    const uint32_t count = std::clamp<uint32_t>(milliseconds / kFrameMs, 1, 600);
    std::vector<Bytes> frames;
    for (uint32_t i = 0; i < count; ++i) {
        PictureLabel frame = label;
        frame.shot = i + 1;
        frame.time = label.time + i * kFrameMs / 1000;
        frame.make.clear();  // a movie's frames carry no Exif
        Bytes jpeg = StillPicture(frame, kWidth, kHeight);
        if (jpeg.empty()) jpeg = {0xFF, 0xD8, 0xFF, 0xD9};
        frames.push_back(std::move(jpeg));
    }
    const uint32_t duration = count * kFrameMs;
    Bytes out;
    Atom(out, "ftyp", [&] {
        out.insert(out.end(), {'q', 't', ' ', ' '});
        Be32(out, 0x200);
        out.insert(out.end(), {'q', 't', ' ', ' '});
    });
    Be32(out, 8);
    out.insert(out.end(), {'w', 'i', 'd', 'e'});
    const auto firstFrame = static_cast<uint32_t>(out.size() + 8);
    Atom(out, "mdat", [&] {
        for (const Bytes& frame : frames) out.insert(out.end(), frame.begin(), frame.end());
    });
    Atom(out, "moov", [&] {
        Atom(out, "mvhd", [&] {
            for (uint32_t v : {0u, 0u, 0u, 1000u, duration, 0x00010000u}) Be32(out, v);
            Be16(out, 0x0100);
            out.insert(out.end(), 10, 0);
            Matrix(out);
            for (int i = 0; i < 6; ++i) Be32(out, 0);
            Be32(out, 2);  // next track id
        });
        Atom(out, "trak", [&] {
            Atom(out, "tkhd", [&] {
                for (uint32_t v : {3u, 0u, 0u, 1u, 0u, duration, 0u, 0u, 0u, 0u}) Be32(out, v);
                Matrix(out);
                Be32(out, kWidth << 16);
                Be32(out, kHeight << 16);
            });
            Atom(out, "mdia", [&] {
                Atom(out, "mdhd", [&] {
                    for (uint32_t v : {0u, 0u, 0u, 1000u, duration, 0u}) Be32(out, v);
                });
                Atom(out, "hdlr", [&] {
                    Be32(out, 0);
                    out.insert(out.end(), {'m', 'h', 'l', 'r', 'v', 'i', 'd', 'e'});
                    for (int i = 0; i < 3; ++i) Be32(out, 0);
                    out.push_back(0);  // empty name
                });
                Atom(out, "minf", [&] {
                    Atom(out, "vmhd", [&] {
                        Be32(out, 1);
                        Be16(out, 0x40);
                        for (int i = 0; i < 3; ++i) Be16(out, 0x8000);
                    });
                    Atom(out, "hdlr", [&] {
                        Be32(out, 0);
                        out.insert(out.end(), {'d', 'h', 'l', 'r', 'a', 'l', 'i', 's'});
                        for (int i = 0; i < 3; ++i) Be32(out, 0);
                        out.push_back(0);
                    });
                    Atom(out, "dinf", [&] {
                        Atom(out, "dref", [&] {
                            Be32(out, 0);
                            Be32(out, 1);
                            Atom(out, "alis", [&] { Be32(out, 1); });  // in this file
                        });
                    });
                    Atom(out, "stbl", [&] {
                        Atom(out, "stsd", [&] {
                            Be32(out, 0);
                            Be32(out, 1);
                            Atom(out, "jpeg", [&] {
                                out.insert(out.end(), 6, 0);
                                Be16(out, 1);  // data reference
                                Be16(out, 0);
                                Be16(out, 0);
                                for (uint32_t v : {0u, 0u, 512u}) Be32(out, v);
                                Be16(out, kWidth);
                                Be16(out, kHeight);
                                Be32(out, 0x00480000);
                                Be32(out, 0x00480000);
                                Be32(out, 0);
                                Be16(out, 1);  // frames per sample
                                const char name[] = "Photo - JPEG";
                                out.push_back(sizeof name - 1);
                                out.insert(out.end(), name, name + sizeof name - 1);
                                out.insert(out.end(), 31 - (sizeof name - 1), 0);
                                Be16(out, 24);
                                Be16(out, 0xFFFF);
                            });
                        });
                        Atom(out, "stts", [&] {
                            for (uint32_t v : {0u, 1u, count, kFrameMs}) Be32(out, v);
                        });
                        Atom(out, "stsc", [&] {
                            for (uint32_t v : {0u, 1u, 1u, count, 1u}) Be32(out, v);
                        });
                        Atom(out, "stsz", [&] {
                            for (uint32_t v : {0u, 0u, count}) Be32(out, v);
                            for (const Bytes& frame : frames) {
                                Be32(out, static_cast<uint32_t>(frame.size()));
                            }
                        });
                        Atom(out, "stco", [&] {
                            for (uint32_t v : {0u, 1u, firstFrame}) Be32(out, v);
                        });
                    });
                });
            });
        });
    });
    return out;
}

}  // namespace orqsim
