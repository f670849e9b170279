// Live-view conversion on x86-64 vector units. Each output channel is the pixel's luma plus an
// offset its group of four shares, clamped: (4096 * y + 2048 + c) >> 12 is y + ((2048 + c) >> 12)
// because 4096 * y has no bits below the shift, so saturating byte adds give the plain loop's
// bytes. A map that shrinks the row picks its kept columns while converting (see "Kept columns
// only" below); any other map, and a block that stops short, converts rows whole into a scratch
// row (one pixel per source column) and copies the kept columns out in runs of neighbours.
// Splitting the source and picking columns are byte shuffles (pshufb, SSSE3); with SSE2 alone
// rows are converted whole in 16-bit words, put in order by unpacks and shifts, and copied out in
// runs. Other processors take the plain loop.
#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "Kernel/Bytes.h"
#include "Kernel/PreviewFrame.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define ORQ_X86_VECTORS 1
#include <immintrin.h>
#endif

namespace orq::preview {

#ifdef ORQ_X86_VECTORS
namespace {

constexpr int kLumaAt[4] = {1, 3, 4, 5};
// Where Offsets puts a group's blue (0), green (1) and red (2) offset.
constexpr int OffsetAt(int channel, int group) {
    return channel == 1 ? 8 + group : 2 * group + channel / 2;
}
// Scratch has this much room behind its last pixel: the run copies read up to 32 bytes past a
// run, and a last chunk of four groups may write up to three groups past the row.
constexpr size_t kScratchSlack = 64;

// One group's four pixels, as the plain loop converts them.
void GroupPlain(const uint8_t* group, uint8_t* out) {
    const int32_t u = static_cast<int8_t>(group[0]);
    const int32_t v = static_cast<int8_t>(group[2]);
    const int32_t blue = (2048 + 7258 * u) >> 12;
    const int32_t green = (2048 - 1411 * u - 2925 * v) >> 12;
    const int32_t red = (2048 + 5743 * v) >> 12;
    for (int k = 0; k < 4; ++k, out += 3) {
        const int32_t y = group[kLumaAt[k]];
        out[0] = bytes::ClampToByte(y + blue);
        out[1] = bytes::ClampToByte(y + green);
        out[2] = bytes::ClampToByte(y + red);
    }
}

// Byte shuffles for four groups (24 source bytes, 16 pixels, 48 output bytes). Output register r
// holds output bytes 16r .. 16r + 15 and reads a window of 16 source bytes starting at 6r.
struct Masks {
    alignas(16) int8_t luma[3][16];
    alignas(16) int8_t offset[3][16];   // into Offsets' bytes, by OffsetAt
    alignas(16) int8_t chromaLow[16];   // u and v as the high bytes of 16-bit pairs, groups 0..2
    alignas(16) int8_t chromaHigh[16];  // group 3, from the window at 12
};

constexpr Masks MakeMasks() {
    Masks m{};
    for (int r = 0; r < 3; ++r) {
        for (int j = 0; j < 16; ++j) {
            const int byte = 16 * r + j, pixel = byte / 3, channel = byte % 3;
            const int group = pixel / 4;
            m.luma[r][j] = static_cast<int8_t>(6 * group + kLumaAt[pixel % 4] - 6 * r);
            m.offset[r][j] = static_cast<int8_t>(OffsetAt(channel, group));
        }
    }
    for (int j = 0; j < 16; ++j) m.chromaLow[j] = m.chromaHigh[j] = -128;
    for (int g = 0; g < 3; ++g) {
        m.chromaLow[4 * g + 1] = static_cast<int8_t>(6 * g);
        m.chromaLow[4 * g + 3] = static_cast<int8_t>(6 * g + 2);
    }
    m.chromaHigh[13] = 6;
    m.chromaHigh[15] = 8;
    return m;
}
constexpr Masks kMasks = MakeMasks();

// 16-bit pairs (u, v) for _mm_madd_epi16.
constexpr int32_t Pair(int16_t low, int16_t high) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(low)) |
                                static_cast<uint32_t>(static_cast<uint16_t>(high)) << 16);
}
constexpr int32_t kBlue = Pair(7258, 0), kGreen = Pair(-1411, -2925), kRed = Pair(0, 5743);
constexpr int32_t kBlueRed = Pair(7258, 5743);

__attribute__((target("sse2"))) inline __m128i Load128(const void* at) {
    return _mm_loadu_si128(static_cast<const __m128i*>(at));
}

// A channel's offset for each group: (2048 + u * low + v * high) >> 12, from (u, v) pairs.
__attribute__((target("sse2"))) inline __m128i Term(__m128i chroma, int32_t pair) {
    return _mm_srai_epi32(
        _mm_add_epi32(_mm_madd_epi16(chroma, _mm_set1_epi32(pair)), _mm_set1_epi32(2048)), 12);
}

// Offsets above and below zero as bytes, laid out {blue, red} by group then green 0..3 twice
// (OffsetAt), from (8u, 8v) pairs of four groups: pmulhrsw's (8u * c + 2^14) >> 15 is
// (2048 + c * u) >> 12; green sums its two products first. Unsigned saturation packs the negative
// offsets to zero.
__attribute__((target("ssse3"))) inline void Offsets(__m128i chroma, __m128i& up, __m128i& down) {
    const __m128i blueRed = _mm_mulhrs_epi16(chroma, _mm_set1_epi32(kBlueRed));
    const __m128i green = _mm_srai_epi32(
        _mm_add_epi32(_mm_madd_epi16(chroma, _mm_set1_epi32(kGreen)), _mm_set1_epi32(1 << 14)), 15);
    const __m128i greenTwice = _mm_packs_epi32(green, green);
    const __m128i zero = _mm_setzero_si128();
    up = _mm_packus_epi16(blueRed, greenTwice);
    down = _mm_packus_epi16(_mm_sub_epi16(zero, blueRed), _mm_sub_epi16(zero, greenTwice));
}

__attribute__((target("avx2"))) inline void Offsets(__m256i chroma, __m256i& up, __m256i& down) {
    const __m256i blueRed = _mm256_mulhrs_epi16(chroma, _mm256_set1_epi32(kBlueRed));
    const __m256i green =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, _mm256_set1_epi32(kGreen)),
                                           _mm256_set1_epi32(1 << 14)),
                          15);
    const __m256i greenTwice = _mm256_packs_epi32(green, green);
    const __m256i zero = _mm256_setzero_si256();
    up = _mm256_packus_epi16(blueRed, greenTwice);
    down = _mm256_packus_epi16(_mm256_sub_epi16(zero, blueRed), _mm256_sub_epi16(zero, greenTwice));
}

// One output register: luma plus offset, saturated both ways.
__attribute__((target("ssse3"))) inline __m128i Channels(__m128i window, int r, __m128i up,
                                                         __m128i down) {
    const __m128i at = Load128(kMasks.offset[r]);
    const __m128i luma = _mm_shuffle_epi8(window, Load128(kMasks.luma[r]));
    return _mm_subs_epu8(_mm_adds_epu8(luma, _mm_shuffle_epi8(up, at)), _mm_shuffle_epi8(down, at));
}

__attribute__((target("avx2"))) inline __m256i Both(const int8_t* mask) {
    return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(mask)));
}

__attribute__((target("avx2"))) inline __m256i Channels(__m256i window, int r, __m256i up,
                                                        __m256i down) {
    const __m256i at = Both(kMasks.offset[r]);
    const __m256i luma = _mm256_shuffle_epi8(window, Both(kMasks.luma[r]));
    return _mm256_subs_epu8(_mm256_adds_epu8(luma, _mm256_shuffle_epi8(up, at)),
                            _mm256_shuffle_epi8(down, at));
}

// Four groups at src into 48 bytes at dst; reads 28 source bytes.
__attribute__((target("ssse3"))) inline void Chunk16(const uint8_t* src, uint8_t* dst) {
    const __m128i window0 = Load128(src), window1 = Load128(src + 6), window2 = Load128(src + 12);
    const __m128i chroma =
        _mm_srai_epi16(_mm_or_si128(_mm_shuffle_epi8(window0, Load128(kMasks.chromaLow)),
                                    _mm_shuffle_epi8(window2, Load128(kMasks.chromaHigh))),
                       5);
    __m128i up, down;
    Offsets(chroma, up, down);
    auto* to = reinterpret_cast<__m128i*>(dst);
    _mm_storeu_si128(to, Channels(window0, 0, up, down));
    _mm_storeu_si128(to + 1, Channels(window1, 1, up, down));
    _mm_storeu_si128(to + 2, Channels(window2, 2, up, down));
}

__attribute__((target("avx2"))) inline __m256i Window(const uint8_t* src) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(src)), Load128(src + 24), 1);
}

// Eight groups at src into 96 bytes at dst, four groups in each 128-bit lane; reads 52 bytes.
__attribute__((target("avx2"))) inline void Chunk32(const uint8_t* src, uint8_t* dst) {
    const __m256i window0 = Window(src), window1 = Window(src + 6), window2 = Window(src + 12);
    const __m256i chroma =
        _mm256_srai_epi16(_mm256_or_si256(_mm256_shuffle_epi8(window0, Both(kMasks.chromaLow)),
                                          _mm256_shuffle_epi8(window2, Both(kMasks.chromaHigh))),
                          5);
    __m256i up, down;
    Offsets(chroma, up, down);
    const __m256i out0 = Channels(window0, 0, up, down);
    const __m256i out1 = Channels(window1, 1, up, down);
    const __m256i out2 = Channels(window2, 2, up, down);
    // Lanes hold the first four groups' thirds and the last four's: put them back in order.
    auto* to = reinterpret_cast<__m256i*>(dst);
    _mm256_storeu_si256(to, _mm256_permute2x128_si256(out0, out1, 0x20));
    _mm256_storeu_si256(to + 1, _mm256_permute2x128_si256(out2, out0, 0x30));
    _mm256_storeu_si256(to + 2, _mm256_permute2x128_si256(out1, out2, 0x31));
}

// ---- Without byte shuffles (SSE2) ----
// Pixels are made in 16-bit words (luma plus its group's offset, packed with unsigned saturation)
// and put in output order by unpacks and shifts.

// Two groups (bytes u y0 v y1 y2 y3 each) as one a 64-bit lane: words (y0:u) (y1:v) (y3:y2) twice.
__attribute__((target("sse2"))) inline __m128i Spread(__m128i twoGroups) {
    const __m128i dwords = _mm_shuffle_epi32(twoGroups, _MM_SHUFFLE(2, 1, 1, 0));
    return _mm_shufflehi_epi16(_mm_shufflelo_epi16(dwords, _MM_SHUFFLE(2, 2, 1, 0)),
                               _MM_SHUFFLE(3, 3, 2, 1));
}

// Four pixels as B G R 0 in dwords: their 12 bytes, the first pixel's at 0, bytes 12..15 zero.
// `pairs` leaves them as two runs of six bytes at 0 and 8 instead.
__attribute__((target("sse2"))) inline __m128i Pairs(__m128i pixels) {
    const __m128i low = _mm_set_epi32(0, -1, 0, -1);
    return _mm_or_si128(_mm_and_si128(pixels, low),
                        _mm_srli_epi64(_mm_andnot_si128(low, pixels), 8));
}

__attribute__((target("sse2"))) inline void StorePairs(__m128i pixels, uint8_t* dst) {
    const __m128i pairs = Pairs(pixels);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), pairs);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + 6), _mm_srli_si128(pairs, 8));
}

// Four groups at src into 48 bytes at dst, nothing written past them; reads 28 source bytes.
__attribute__((target("sse2"))) inline void Chunk16Sse2(const uint8_t* src, uint8_t* dst) {
    const __m128i spread0 = Spread(Load128(src)), spread1 = Spread(Load128(src + 12));
    const __m128i pairs = _mm_castps_si128(_mm_shuffle_ps(
        _mm_castsi128_ps(spread0), _mm_castsi128_ps(spread1), _MM_SHUFFLE(2, 0, 2, 0)));
    const __m128i chroma = _mm_srai_epi16(_mm_slli_epi16(pairs, 8), 8);
    const __m128i blueGreen = _mm_packs_epi32(Term(chroma, kBlue), Term(chroma, kGreen));
    const __m128i red = Term(chroma, kRed);
    const __m128i redRed = _mm_packs_epi32(red, red);
    // (y3:y2) times 256 keeps y2 in the high byte.
    const __m128i scale = _mm_setr_epi16(1, 1, 256, 1, 1, 1, 256, 1);
    const __m128i luma0 = _mm_srli_epi16(_mm_mullo_epi16(spread0, scale), 8);
    const __m128i luma1 = _mm_srli_epi16(_mm_mullo_epi16(spread1, scale), 8);
    // Each group's offset in its four pixels' words: groups 0, 1 with luma0, 2, 3 with luma1.
    const auto channel = [&](__m128i twice) {
        return _mm_packus_epi16(_mm_add_epi16(luma0, _mm_unpacklo_epi32(twice, twice)),
                                _mm_add_epi16(luma1, _mm_unpackhi_epi32(twice, twice)));
    };
    const __m128i blue = channel(_mm_unpacklo_epi16(blueGreen, blueGreen));
    const __m128i green = channel(_mm_unpackhi_epi16(blueGreen, blueGreen));
    const __m128i redBytes = channel(_mm_unpacklo_epi16(redRed, redRed));
    const __m128i zero = _mm_setzero_si128();
    const __m128i bg0 = _mm_unpacklo_epi8(blue, green), bg1 = _mm_unpackhi_epi8(blue, green);
    const __m128i r0 = _mm_unpacklo_epi8(redBytes, zero), r1 = _mm_unpackhi_epi8(redBytes, zero);
    StorePairs(_mm_unpacklo_epi16(bg0, r0), dst);
    StorePairs(_mm_unpackhi_epi16(bg0, r0), dst + 12);
    StorePairs(_mm_unpacklo_epi16(bg1, r1), dst + 24);
    // The last twelve bytes exactly: 8 + 4.
    const __m128i pairs3 = Pairs(_mm_unpackhi_epi16(bg1, r1));
    const __m128i last =
        _mm_or_si128(_mm_move_epi64(pairs3), _mm_slli_si128(_mm_srli_si128(pairs3, 8), 6));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + 36), last);
    const int32_t tail = _mm_cvtsi128_si32(_mm_srli_si128(last, 8));
    std::memcpy(dst + 44, &tail, 4);
}

// Converts a row's first `groups` groups to dst; `available` bytes may be read from row. With
// `spare`, dst has kScratchSlack bytes behind them for a last chunk that passes the end.
using RowConverter = void (*)(const uint8_t* row, uint64_t available, uint64_t groups, uint8_t* dst,
                              bool spare);

__attribute__((target("sse2"))) void RowSse2(const uint8_t* row, uint64_t available,
                                             uint64_t groups, uint8_t* dst, bool spare) {
    uint64_t g = 0;
    for (; g + 4 <= groups && 6 * g + 28 <= available; g += 4) {
        Chunk16Sse2(row + 6 * g, dst + 12 * g);
    }
    if (spare && g < groups && 6 * g + 28 <= available) {
        Chunk16Sse2(row + 6 * g, dst + 12 * g);
        return;
    }
    for (; g < groups; ++g) GroupPlain(row + 6 * g, dst + 12 * g);
}

__attribute__((target("ssse3"))) void RowSsse3(const uint8_t* row, uint64_t available,
                                               uint64_t groups, uint8_t* dst, bool spare) {
    uint64_t g = 0;
    for (; g + 4 <= groups && 6 * g + 28 <= available; g += 4) Chunk16(row + 6 * g, dst + 12 * g);
    if (spare && g < groups && 6 * g + 28 <= available) {
        Chunk16(row + 6 * g, dst + 12 * g);
        return;
    }
    for (; g < groups; ++g) GroupPlain(row + 6 * g, dst + 12 * g);
}

__attribute__((target("avx2"))) void RowAvx2(const uint8_t* row, uint64_t available,
                                             uint64_t groups, uint8_t* dst, bool spare) {
    uint64_t g = 0;
    for (; g + 8 <= groups && 6 * g + 52 <= available; g += 8) Chunk32(row + 6 * g, dst + 12 * g);
    for (; g + 4 <= groups && 6 * g + 28 <= available; g += 4) Chunk16(row + 6 * g, dst + 12 * g);
    if (spare && g < groups && 6 * g + 28 <= available) {
        Chunk16(row + 6 * g, dst + 12 * g);
        return;
    }
    for (; g < groups; ++g) GroupPlain(row + 6 * g, dst + 12 * g);
}

// Neighbouring kept columns that land on neighbouring output columns, as byte ranges.
struct Run {
    // How a run may be copied: what a wide copy writes past the run's end, the runs after it
    // rewrite before anything else does.
    enum Copy : uint8_t { Exact, Word, Block32, Blocks16 };
    uint32_t from = 0;   // in scratch
    uint32_t to = 0;     // in the output row
    uint32_t bytes = 0;  // 3 per column
    uint32_t firstColumn = 0;
    Copy copy = Exact;
};

std::vector<Run> MakeRuns(const FrameGeometry& geometry, const int32_t* map) {
    std::vector<Run> runs;
    const uint32_t columns = static_cast<uint32_t>(geometry.groupsPerRow * 4);
    for (uint32_t i = 0; i < columns; ++i) {
        if (map[i] < 0) continue;
        const uint32_t to = static_cast<uint32_t>(map[i]);
        if (!runs.empty()) {
            Run& last = runs.back();
            if (last.firstColumn + last.bytes / 3 == i && last.to + last.bytes == to) {
                last.bytes += 3;
                continue;
            }
        }
        Run run;
        run.from = 3 * i;
        run.to = to;
        run.bytes = 3;
        run.firstColumn = i;
        runs.push_back(run);
    }
    // Backwards: where the chain of runs that follow one another in the output ends.
    uint64_t chainEnd = 0;
    for (size_t k = runs.size(); k-- > 0;) {
        Run& run = runs[k];
        const uint64_t end = uint64_t(run.to) + run.bytes;
        if (k + 1 == runs.size() || runs[k + 1].to != end) chainEnd = end;
        const uint64_t room = chainEnd - run.to;
        if (run.bytes == 3 && room >= 4) {
            run.copy = Run::Word;
        } else if (run.bytes <= 32 && room >= 32) {
            run.copy = Run::Block32;
        } else if (run.bytes < 128 && room >= ((run.bytes + 15) & ~15u)) {
            run.copy = Run::Blocks16;
        }
    }
    return runs;
}

// A row's kept columns from scratch into the output row; scratch has kScratchSlack behind it.
using RunCopier = void (*)(const std::vector<Run>& runs, const uint8_t* scratch, uint8_t* out);

// One run; a Block32 run by 16-byte copies.
__attribute__((target("sse2"))) inline void CopyRun(const Run& run, const uint8_t* from,
                                                    uint8_t* to) {
    switch (run.copy) {
        case Run::Word:
            std::memcpy(to, from, 4);
            break;
        case Run::Block32:
        case Run::Blocks16:
            for (uint32_t k = 0; k < run.bytes; k += 16) {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(to + k), Load128(from + k));
            }
            break;
        case Run::Exact:
            std::memcpy(to, from, run.bytes);
            break;
    }
}

__attribute__((target("sse2"))) void CopyRunsSse2(const std::vector<Run>& runs,
                                                  const uint8_t* scratch, uint8_t* out) {
    for (const Run& run : runs) CopyRun(run, scratch + run.from, out + run.to);
}

__attribute__((target("avx2"))) void CopyRunsAvx2(const std::vector<Run>& runs,
                                                  const uint8_t* scratch, uint8_t* out) {
    for (const Run& run : runs) {
        if (run.copy == Run::Block32) {
            _mm256_storeu_si256(
                reinterpret_cast<__m256i*>(out + run.to),
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(scratch + run.from)));
        } else {
            CopyRun(run, scratch + run.from, out + run.to);
        }
    }
}

// The kept columns as one chain of single pixels from the row's start: for maps whose runs are
// too short to copy one by one. from holds each output pixel's scratch offset.
using PixelGatherer = void (*)(const std::vector<int32_t>& from, const uint8_t* scratch,
                               uint8_t* out);

// By 4-byte copies, each but the last written over by the next pixel.
void GatherPixelsWords(const std::vector<int32_t>& from, const uint8_t* scratch, uint8_t* out) {
    const size_t pixels = from.size();
    for (size_t j = 0; j + 1 < pixels; ++j) std::memcpy(out + 3 * j, scratch + from[j], 4);
    if (pixels > 0) std::memcpy(out + 3 * (pixels - 1), scratch + from[pixels - 1], 3);
}

// By AVX2 gathers.
__attribute__((target("avx2"))) void GatherPixelsAvx2(const std::vector<int32_t>& from,
                                                      const uint8_t* scratch, uint8_t* out) {
    const size_t pixels = from.size();
    // Three bytes of each of four pixels in each lane, the last four bytes zero.
    const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0,
                                          1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    size_t j = 0;
    // Eight pixels write 28 bytes: stop where that would pass the last pixel.
    for (; j + 10 <= pixels; j += 8) {
        const __m256i at = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from.data() + j));
        const __m256i packed = _mm256_shuffle_epi8(
            _mm256_i32gather_epi32(reinterpret_cast<const int*>(scratch), at, 1), pack);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * j), _mm256_castsi256_si128(packed));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * j + 12),
                         _mm256_extracti128_si256(packed, 1));
    }
    for (; j < pixels; ++j) std::memcpy(out + 3 * j, scratch + from[j], 3);
}

void ConvertVector(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels, RowConverter convertRow, RunCopier copyRuns,
                   PixelGatherer gatherPixels, int32_t firstRow = 0) {
    std::vector<Run> runs;
    std::vector<uint8_t> scratch;
    std::vector<int32_t> gather;
    try {
        runs = MakeRuns(geometry, map);
        scratch.resize(static_cast<size_t>(geometry.groupsPerRow * 12) + kScratchSlack);
        // Short runs that follow one another from the row's start: gathered pixel by pixel.
        bool chain = !runs.empty() && runs[0].to == 0;
        uint64_t kept = 0;
        for (size_t k = 0; chain && k < runs.size(); ++k) {
            chain = k == 0 || runs[k].to == runs[k - 1].to + runs[k - 1].bytes;
            kept += runs[k].bytes / 3;
        }
        if (chain && kept < runs.size() * 2) {
            for (const Run& run : runs) {
                for (uint32_t c = 0; c < run.bytes; c += 3) {
                    gather.push_back(static_cast<int32_t>(run.from + c));
                }
            }
        }
    } catch (const std::bad_alloc&) {
        ConvertPixelsPlain(source, sourceSize, geometry, map, pixels);
        return;
    }
    // Every column kept in place: whole groups go straight into the output row.
    const bool inPlace = runs.size() == 1 && runs[0].from == 0 && runs[0].to == 0;
    const uint64_t direct = inPlace ? runs[0].bytes / 12 : 0;
    const uint64_t rowBytes = geometry.groupsPerRow * 6;
    const uint64_t stride = static_cast<uint64_t>(geometry.outWidth) * 3;
    for (int32_t y = firstRow; y < geometry.height; ++y) {
        const uint64_t rowStart = static_cast<uint64_t>(y) * rowBytes;
        if (!source || rowStart >= sourceSize) break;
        const uint8_t* row = source + rowStart;
        const uint64_t available = sourceSize - rowStart;
        const uint64_t groups = std::min(geometry.groupsPerRow, available / 6);
        uint8_t* out =
            pixels + static_cast<uint64_t>(geometry.height - 1 - y) * stride + geometry.pad;
        if (inPlace) {
            const uint64_t straight = std::min(groups, direct);
            convertRow(row, available, straight, out, false);
            const uint64_t end = std::min<uint64_t>(runs[0].bytes, groups * 12);
            if (groups > straight && end > straight * 12) {
                convertRow(row + 6 * straight, available - 6 * straight, groups - straight,
                           scratch.data(), true);
                std::memcpy(out + 12 * straight, scratch.data(),
                            static_cast<size_t>(end - 12 * straight));
            }
            continue;
        }
        convertRow(row, available, groups, scratch.data(), true);
        if (groups == geometry.groupsPerRow) {
            if (!gather.empty()) {
                gatherPixels(gather, scratch.data(), out);
            } else {
                copyRuns(runs, scratch.data(), out);
            }
            continue;
        }
        // A block that stops short: only the columns of whole groups, each byte exactly.
        const uint64_t present = groups * 4;
        for (const Run& run : runs) {
            if (run.firstColumn >= present) break;
            const uint64_t columns = std::min<uint64_t>(run.bytes / 3, present - run.firstColumn);
            std::memcpy(out + run.to, scratch.data() + run.from, static_cast<size_t>(columns * 3));
        }
    }
}

// ---- Kept columns only ----------------------------------------------------------------------
// When the kept columns fill the output row in order (every map that shrinks or keeps the width),
// each four groups (16 columns) are converted in one register: their luma and offsets stay there,
// and up to three 16-byte pieces of output are picked from them by shuffles that a table holds,
// the same for every row. Only kept pixels are computed and stored. Pieces go one after another,
// a lane's first at the output byte of its first kept column, so that what a piece writes past
// its lane's pixels the next lane writes over; the last lanes of a row go through a local buffer.

struct PickMasks {
    alignas(16) int8_t lumaLow[16];   // groups 0 and 1 from the window at 0
    alignas(16) int8_t lumaHigh[16];  // groups 2 and 3 from the window at 12
};

constexpr PickMasks MakePickMasks() {
    PickMasks m{};
    for (int j = 0; j < 16; ++j) m.lumaLow[j] = m.lumaHigh[j] = -128;
    for (int j = 0; j < 8; ++j) {
        m.lumaLow[j] = m.lumaHigh[j + 8] = static_cast<int8_t>(6 * (j / 4) + kLumaAt[j % 4]);
    }
    return m;
}
constexpr PickMasks kPickMasks = MakePickMasks();

// Per lane of four groups: where its output starts, and per piece its shuffles of luma and of
// offsets. Lanes go in pairs (eight groups) so that the two lanes' shuffles are 32 bytes in a row:
// piece r of pair p at 64 * (pieces * p + r): luma of both lanes, then offsets of both.
struct Picks {
    int pieces = 0;
    std::vector<int8_t> masks;
    std::vector<uint32_t> outAt;  // per lane, and the row's kept bytes behind the last
    size_t direct = 0;            // leading lanes whose pieces all end inside the kept bytes
    // Per lane of 16 bytes or more, the shuffles of its last 16 bytes (luma, then offsets): the
    // lanes behind `direct` end with them instead of passing the kept bytes.
    std::vector<int8_t> lastMasks;
};

// False when the kept columns leave gaps in the output row.
bool MakePicks(const FrameGeometry& geometry, const int32_t* map, Picks& picks) {
    const size_t columns = static_cast<size_t>(geometry.groupsPerRow * 4);
    const size_t lanes = (static_cast<size_t>(geometry.groupsPerRow) + 7) / 8 * 2;
    std::vector<std::vector<uint32_t>> kept(lanes);  // columns each lane keeps
    uint32_t count = 0;
    for (size_t i = 0; i < columns; ++i) {
        if (map[i] < 0) continue;
        if (uint64_t(map[i]) != 3 * uint64_t(count)) return false;
        kept[i / 16].push_back(static_cast<uint32_t>(i % 16));
        ++count;
    }
    picks.pieces = 1;
    for (const auto& lane : kept) {
        picks.pieces = std::max(picks.pieces, static_cast<int>(lane.size() * 3 + 15) / 16);
    }
    const int pieces = picks.pieces;
    picks.masks.assign(lanes / 2 * pieces * 64, -128);
    picks.lastMasks.assign(lanes * 32, -128);
    uint32_t at = 0;
    for (size_t l = 0; l < lanes; ++l) {
        picks.outAt.push_back(at);
        const size_t bytes = 3 * kept[l].size();
        for (size_t j = 0; j < bytes; ++j) {
            const uint32_t column = kept[l][j / 3];
            const int8_t luma = static_cast<int8_t>(column);
            const int8_t offset = static_cast<int8_t>(
                OffsetAt(static_cast<int>(j % 3), static_cast<int>(column / 4)));
            int8_t* piece = &picks.masks[64 * (pieces * (l / 2) + j / 16) + 16 * (l % 2) + j % 16];
            piece[0] = luma;
            piece[32] = offset;
            if (bytes >= 16 && j + 16 >= bytes) {
                picks.lastMasks[32 * l + j + 16 - bytes] = luma;
                picks.lastMasks[32 * l + j + 32 - bytes] = offset;
            }
        }
        at += static_cast<uint32_t>(bytes);
    }
    picks.outAt.push_back(at);
    while (picks.direct < lanes && picks.outAt[picks.direct] + 16 * pieces <= at) ++picks.direct;
    return true;
}

// Four groups' luma (16 columns) and offsets in a register from the windows at src and src + 12.
__attribute__((target("ssse3"))) inline void Lane(__m128i window0, __m128i window2, __m128i& luma,
                                                  __m128i& up, __m128i& down) {
    Offsets(_mm_srai_epi16(_mm_or_si128(_mm_shuffle_epi8(window0, Load128(kMasks.chromaLow)),
                                        _mm_shuffle_epi8(window2, Load128(kMasks.chromaHigh))),
                           5),
            up, down);
    luma = _mm_or_si128(_mm_shuffle_epi8(window0, Load128(kPickMasks.lumaLow)),
                        _mm_shuffle_epi8(window2, Load128(kPickMasks.lumaHigh)));
}

// 16 output bytes from a lane's registers by the luma shuffle at masks and the offset shuffle
// `apart` bytes behind it.
__attribute__((target("ssse3"))) inline __m128i Piece(__m128i luma, __m128i up, __m128i down,
                                                      const int8_t* masks, int apart = 32) {
    const __m128i at = Load128(masks + apart);
    return _mm_subs_epu8(
        _mm_adds_epu8(_mm_shuffle_epi8(luma, Load128(masks)), _mm_shuffle_epi8(up, at)),
        _mm_shuffle_epi8(down, at));
}

// One lane at src (reads 28 bytes), its pieces from `masks` stored at out.
template <int kPieces>
__attribute__((target("ssse3"))) inline void PickLane(const uint8_t* src, const int8_t* masks,
                                                      uint8_t* out) {
    __m128i luma, up, down;
    Lane(Load128(src), Load128(src + 12), luma, up, down);
    for (int r = 0; r < kPieces; ++r) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * r),
                         Piece(luma, up, down, masks + 64 * r));
    }
}

// Two lanes at src (reads 52 bytes), stored at out0 and then at out1.
template <int kPieces>
__attribute__((target("avx2"))) inline void PickPair(const uint8_t* src, const int8_t* masks,
                                                     uint8_t* out0, uint8_t* out1) {
    const __m256i window0 = Window(src), window2 = Window(src + 12);
    __m256i up, down;
    Offsets(
        _mm256_srai_epi16(_mm256_or_si256(_mm256_shuffle_epi8(window0, Both(kMasks.chromaLow)),
                                          _mm256_shuffle_epi8(window2, Both(kMasks.chromaHigh))),
                          5),
        up, down);
    const __m256i luma = _mm256_or_si256(_mm256_shuffle_epi8(window0, Both(kPickMasks.lumaLow)),
                                         _mm256_shuffle_epi8(window2, Both(kPickMasks.lumaHigh)));
    __m256i out[kPieces];
    for (int r = 0; r < kPieces; ++r) {
        const __m256i at =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(masks + 64 * r + 32));
        const __m256i y = _mm256_shuffle_epi8(
            luma, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(masks + 64 * r)));
        out[r] = _mm256_subs_epu8(_mm256_adds_epu8(y, _mm256_shuffle_epi8(up, at)),
                                  _mm256_shuffle_epi8(down, at));
    }
    for (int r = 0; r < kPieces; ++r) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out0 + 16 * r), _mm256_castsi256_si128(out[r]));
    }
    for (int r = 0; r < kPieces; ++r) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out1 + 16 * r),
                         _mm256_extracti128_si256(out[r], 1));
    }
}

// Lane l exactly: its whole pieces, then its last 16 bytes; a lane of fewer bytes, or whose
// window would pass the block, through local buffers (the columns past the row are dropped).
template <int kPieces>
__attribute__((target("ssse3"))) void PickLaneExactly(const uint8_t* row, uint64_t available,
                                                      const Picks& picks, size_t l, uint8_t* out) {
    const uint32_t bytes = picks.outAt[l + 1] - picks.outAt[l];
    if (bytes == 0) return;
    const int8_t* masks = picks.masks.data() + 64 * kPieces * (l / 2) + 16 * (l % 2);
    out += picks.outAt[l];
    if (bytes >= 16 && 24 * l + 28 <= available) {
        __m128i luma, up, down;
        Lane(Load128(row + 24 * l), Load128(row + 24 * l + 12), luma, up, down);
        for (uint32_t r = 0; r < bytes / 16; ++r) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * r),
                             Piece(luma, up, down, masks + 64 * r));
        }
        const int8_t* last = picks.lastMasks.data() + 32 * l;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + bytes - 16),
                         Piece(luma, up, down, last, 16));
        return;
    }
    uint8_t src[28] = {}, local[48];
    std::memcpy(src, row + 24 * l, static_cast<size_t>(std::min<uint64_t>(28, available - 24 * l)));
    PickLane<kPieces>(src, masks, local);
    std::memcpy(out, local, bytes);
}

// A whole row; `available` source bytes from row on, at least the row's.
using Picker = void (*)(const uint8_t* row, uint64_t available, const Picks& picks, uint8_t* out);

template <int kPieces>
__attribute__((target("ssse3"))) void PickSsse3(const uint8_t* row, uint64_t available,
                                                const Picks& picks, uint8_t* out) {
    const size_t lanes = picks.outAt.size() - 1;
    size_t l = 0;
    for (; l < picks.direct && 24 * l + 28 <= available; ++l) {
        PickLane<kPieces>(row + 24 * l, picks.masks.data() + 64 * kPieces * (l / 2) + 16 * (l % 2),
                          out + picks.outAt[l]);
    }
    for (; l < lanes; ++l) PickLaneExactly<kPieces>(row, available, picks, l, out);
}

template <int kPieces>
__attribute__((target("avx2"))) void PickAvx2(const uint8_t* row, uint64_t available,
                                              const Picks& picks, uint8_t* out) {
    const size_t lanes = picks.outAt.size() - 1;
    const uint32_t* outAt = picks.outAt.data();
    const int8_t* masks = picks.masks.data();
    size_t l = 0;
    for (; l + 2 <= picks.direct && 24 * l + 52 <= available; l += 2, masks += 64 * kPieces) {
        PickPair<kPieces>(row + 24 * l, masks, out + outAt[l], out + outAt[l + 1]);
    }
    for (; l < lanes; ++l) PickLaneExactly<kPieces>(row, available, picks, l, out);
}

struct VectorPath {
    RowConverter convertRow;
    RunCopier copyRuns;
    PixelGatherer gatherPixels;
    const Picker* pick;  // by pieces - 1
};

constexpr Picker kPickSsse3[3] = {PickSsse3<1>, PickSsse3<2>, PickSsse3<3>};
constexpr Picker kPickAvx2[3] = {PickAvx2<1>, PickAvx2<2>, PickAvx2<3>};

// The tables for the last map converted on this thread: a live view keeps its size for long.
struct PickCache {
    std::vector<int32_t> map;
    bool pickable = false;
    Picks picks;
};

void ConvertPicked(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels, const VectorPath& path) {
    thread_local PickCache cache;
    const size_t columns = static_cast<size_t>(geometry.groupsPerRow * 4);
    bool pickable = false;
    try {
        if (cache.map.size() != columns ||
            std::memcmp(cache.map.data(), map, columns * sizeof(int32_t)) != 0) {
            cache = PickCache();
            // Every column kept in place goes straight into the output row by the whole-row path.
            cache.pickable =
                geometry.width != geometry.outWidth && MakePicks(geometry, map, cache.picks);
            cache.map.assign(map, map + columns);
        }
        pickable = cache.pickable && path.pick;
    } catch (const std::bad_alloc&) {
        cache = PickCache();
    }
    int32_t y = 0;
    if (pickable) {
        const Picker pick = path.pick[cache.picks.pieces - 1];
        const uint64_t rowBytes = geometry.groupsPerRow * 6;
        const uint64_t stride = static_cast<uint64_t>(geometry.outWidth) * 3;
        // Whole rows only; a block that stops short ends in the whole-row path.
        for (; source && y < geometry.height; ++y) {
            const uint64_t rowStart = static_cast<uint64_t>(y) * rowBytes;
            if (rowStart >= sourceSize || sourceSize - rowStart < rowBytes) break;
            pick(source + rowStart, sourceSize - rowStart, cache.picks,
                 pixels + static_cast<uint64_t>(geometry.height - 1 - y) * stride + geometry.pad);
        }
    }
    ConvertVector(source, sourceSize, geometry, map, pixels, path.convertRow, path.copyRuns,
                  path.gatherPixels, y);
}

}  // namespace

PixelPath FastestPixelPath() {
    static const PixelPath fastest = [] {
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2")) return PixelPath::Avx2;
        if (__builtin_cpu_supports("ssse3")) return PixelPath::Ssse3;
        if (__builtin_cpu_supports("sse2")) return PixelPath::Sse2;
        return PixelPath::Plain;
    }();
    return fastest;
}

void ConvertPixels(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels, PixelPath path) {
    path = std::min(path, FastestPixelPath());
    if (path == PixelPath::Avx2) {
        ConvertPicked(source, sourceSize, geometry, map, pixels,
                      {RowAvx2, CopyRunsAvx2, GatherPixelsAvx2, kPickAvx2});
    } else if (path == PixelPath::Ssse3) {
        ConvertPicked(source, sourceSize, geometry, map, pixels,
                      {RowSsse3, CopyRunsSse2, GatherPixelsWords, kPickSsse3});
    } else if (path == PixelPath::Sse2) {
        ConvertPicked(source, sourceSize, geometry, map, pixels,
                      {RowSse2, CopyRunsSse2, GatherPixelsWords, nullptr});
    } else {
        ConvertPixelsPlain(source, sourceSize, geometry, map, pixels);
    }
}

#else

PixelPath FastestPixelPath() {
    return PixelPath::Plain;
}

void ConvertPixels(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels, PixelPath) {
    ConvertPixelsPlain(source, sourceSize, geometry, map, pixels);
}

#endif

void ConvertPixels(const uint8_t* source, uint64_t sourceSize, const FrameGeometry& geometry,
                   const int32_t* map, uint8_t* pixels) {
    ConvertPixels(source, sourceSize, geometry, map, pixels, FastestPixelPath());
}

}  // namespace orq::preview
