// Live-view conversion on x86-64 vector units. Each output channel is the pixel's luma plus an
// offset its group of four shares, clamped: (4096 * y + 2048 + c) >> 12 is y + ((2048 + c) >> 12)
// because 4096 * y has no bits below the shift, so saturating byte adds give the plain loop's
// bytes. A map that shrinks the row picks its kept columns while converting (see "Kept columns
// only" below); any other map, and a block that stops short, converts rows whole into a scratch
// row (one pixel per source column) and copies the kept columns out in runs of neighbours.
// Splitting the source and picking columns are byte shuffles (pshufb, SSSE3); with SSE2 alone
// rows are converted whole in 16-bit words and put in order by unpacks and shifts. Other
// processors take the plain loop.
#include <algorithm>
#include <array>
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
    alignas(16) int8_t offset[3][16];   // into {blue 0..3, green 0..3, red 0..3} by group
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
            m.offset[r][j] = static_cast<int8_t>(4 * channel + group);
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

__attribute__((target("sse2"))) inline __m128i Load128(const void* at) {
    return _mm_loadu_si128(static_cast<const __m128i*>(at));
}

// A channel's offset for each group: (2048 + u * low + v * high) >> 12.
__attribute__((target("sse2"))) inline __m128i Term(__m128i chroma, int32_t pair) {
    return _mm_srai_epi32(
        _mm_add_epi32(_mm_madd_epi16(chroma, _mm_set1_epi32(pair)), _mm_set1_epi32(2048)), 12);
}

__attribute__((target("avx2"))) inline __m256i Term(__m256i chroma, int32_t pair) {
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, _mm256_set1_epi32(pair)),
                                              _mm256_set1_epi32(2048)),
                             12);
}

// Offsets above and below zero as bytes, laid out {blue 0..3, green 0..3, red 0..3, red 0..3} by
// group, from the (u, v) pairs of four groups.
__attribute__((target("sse2"))) inline void Offsets(__m128i chroma, __m128i& up, __m128i& down) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i blueGreen = _mm_packs_epi32(Term(chroma, kBlue), Term(chroma, kGreen));
    const __m128i red = Term(chroma, kRed);
    const __m128i redRed = _mm_packs_epi32(red, red);
    up = _mm_packus_epi16(_mm_max_epi16(blueGreen, zero), _mm_max_epi16(redRed, zero));
    down = _mm_packus_epi16(_mm_max_epi16(_mm_sub_epi16(zero, blueGreen), zero),
                            _mm_max_epi16(_mm_sub_epi16(zero, redRed), zero));
}

__attribute__((target("avx2"))) inline void Offsets(__m256i chroma, __m256i& up, __m256i& down) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i blueGreen = _mm256_packs_epi32(Term(chroma, kBlue), Term(chroma, kGreen));
    const __m256i red = Term(chroma, kRed);
    const __m256i redRed = _mm256_packs_epi32(red, red);
    up = _mm256_packus_epi16(_mm256_max_epi16(blueGreen, zero), _mm256_max_epi16(redRed, zero));
    down = _mm256_packus_epi16(_mm256_max_epi16(_mm256_sub_epi16(zero, blueGreen), zero),
                               _mm256_max_epi16(_mm256_sub_epi16(zero, redRed), zero));
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
                       8);
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
                          8);
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

__attribute__((target("sse2"))) void CopyRunsSse2(const std::vector<Run>& runs,
                                                  const uint8_t* scratch, uint8_t* out) {
    for (const Run& run : runs) {
        uint8_t* to = out + run.to;
        const uint8_t* from = scratch + run.from;
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
}

__attribute__((target("avx2"))) void CopyRunsAvx2(const std::vector<Run>& runs,
                                                  const uint8_t* scratch, uint8_t* out) {
    for (const Run& run : runs) {
        uint8_t* to = out + run.to;
        const uint8_t* from = scratch + run.from;
        switch (run.copy) {
            case Run::Word:
                std::memcpy(to, from, 4);
                break;
            case Run::Block32:
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(to),
                                    _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)));
                break;
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
}

// The kept columns as one chain of single pixels from the row's start, by AVX2 gathers: for
// maps whose runs are too short to copy one by one. from holds each output pixel's scratch offset.
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
                   bool gathers, int32_t firstRow = 0) {
    std::vector<Run> runs;
    std::vector<uint8_t> scratch;
    std::vector<int32_t> gather;
    try {
        runs = MakeRuns(geometry, map);
        scratch.resize(static_cast<size_t>(geometry.groupsPerRow * 12) + kScratchSlack);
        // Short runs that follow one another from the row's start: gathered pixel by pixel.
        bool chain = gathers && !runs.empty() && runs[0].to == 0;
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
                GatherPixelsAvx2(gather, scratch.data(), out);
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
// a row goes in two passes: the source is split into a luma plane (one byte per column) and the
// offsets above and below zero of each group (blue, green, red: three bytes a group); then each
// 16 output bytes are picked from 16-byte windows of those planes by shuffles that a table holds,
// the same for every row. Only kept pixels are computed and stored.

struct PlaneMasks {
    alignas(16) int8_t lumaLow[16];   // groups 0 and 1 from the window at 0
    alignas(16) int8_t lumaHigh[16];  // groups 2 and 3 from the window at 12
    alignas(16) int8_t byGroup[16];   // {blue 0..3, green 0..3, red 0..3} to blue, green, red
};

constexpr PlaneMasks MakePlaneMasks() {
    PlaneMasks m{};
    for (int j = 0; j < 16; ++j) m.lumaLow[j] = m.lumaHigh[j] = m.byGroup[j] = -128;
    for (int j = 0; j < 8; ++j) {
        m.lumaLow[j] = m.lumaHigh[j + 8] = static_cast<int8_t>(6 * (j / 4) + kLumaAt[j % 4]);
    }
    for (int j = 0; j < 12; ++j) m.byGroup[j] = static_cast<int8_t>(4 * (j % 3) + j / 3);
    return m;
}
constexpr PlaneMasks kPlaneMasks = MakePlaneMasks();

// A row's planes; each has room behind it for a window read past its last group.
struct Planes {
    uint8_t* luma;  // 4 bytes a group
    uint8_t* up;    // 3 bytes a group
    uint8_t* down;
};
constexpr size_t kPlaneSlack = 48;

void GroupPlanes(const uint8_t* group, uint64_t g, const Planes& planes) {
    const int32_t u = static_cast<int8_t>(group[0]);
    const int32_t v = static_cast<int8_t>(group[2]);
    const int32_t offsets[3] = {(2048 + 7258 * u) >> 12, (2048 - 1411 * u - 2925 * v) >> 12,
                                (2048 + 5743 * v) >> 12};
    for (int k = 0; k < 4; ++k) planes.luma[4 * g + k] = group[kLumaAt[k]];
    for (int c = 0; c < 3; ++c) {
        planes.up[3 * g + c] = static_cast<uint8_t>(std::max(offsets[c], 0));
        planes.down[3 * g + c] = static_cast<uint8_t>(std::max(-offsets[c], 0));
    }
}

// Four groups' planes from the windows at src and src + 12: 16 luma bytes, 12 bytes of each
// offset plane (16 written).
__attribute__((target("ssse3"))) inline void Planes4(__m128i window0, __m128i window2,
                                                     uint8_t* luma, uint8_t* up, uint8_t* down) {
    const __m128i chroma =
        _mm_srai_epi16(_mm_or_si128(_mm_shuffle_epi8(window0, Load128(kMasks.chromaLow)),
                                    _mm_shuffle_epi8(window2, Load128(kMasks.chromaHigh))),
                       8);
    __m128i above, below;
    Offsets(chroma, above, below);
    const __m128i byGroup = Load128(kPlaneMasks.byGroup);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(luma),
                     _mm_or_si128(_mm_shuffle_epi8(window0, Load128(kPlaneMasks.lumaLow)),
                                  _mm_shuffle_epi8(window2, Load128(kPlaneMasks.lumaHigh))));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(up), _mm_shuffle_epi8(above, byGroup));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(down), _mm_shuffle_epi8(below, byGroup));
}

using PlaneSplitter = void (*)(const uint8_t* row, uint64_t available, uint64_t groups,
                               const Planes& planes);

__attribute__((target("ssse3"))) void PlanesSsse3(const uint8_t* row, uint64_t available,
                                                  uint64_t groups, const Planes& planes) {
    uint64_t g = 0;
    for (; g < groups && 6 * g + 28 <= available; g += 4) {
        const uint8_t* src = row + 6 * g;
        Planes4(Load128(src), Load128(src + 12), planes.luma + 4 * g, planes.up + 3 * g,
                planes.down + 3 * g);
    }
    for (; g < groups; ++g) GroupPlanes(row + 6 * g, g, planes);
}

__attribute__((target("avx2"))) void PlanesAvx2(const uint8_t* row, uint64_t available,
                                                uint64_t groups, const Planes& planes) {
    // Lanes hold groups 0..3 and 4..7; the offsets' 12 bytes a lane are closed up by dwords.
    const __m256i close = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    uint64_t g = 0;
    for (; g < groups && 6 * g + 52 <= available; g += 8) {
        const uint8_t* src = row + 6 * g;
        const __m256i window0 = Window(src), window2 = Window(src + 12);
        const __m256i chroma = _mm256_srai_epi16(
            _mm256_or_si256(_mm256_shuffle_epi8(window0, Both(kMasks.chromaLow)),
                            _mm256_shuffle_epi8(window2, Both(kMasks.chromaHigh))),
            8);
        __m256i above, below;
        Offsets(chroma, above, below);
        const __m256i byGroup = Both(kPlaneMasks.byGroup);
        _mm256_storeu_si256(
            reinterpret_cast<__m256i*>(planes.luma + 4 * g),
            _mm256_or_si256(_mm256_shuffle_epi8(window0, Both(kPlaneMasks.lumaLow)),
                            _mm256_shuffle_epi8(window2, Both(kPlaneMasks.lumaHigh))));
        _mm256_storeu_si256(
            reinterpret_cast<__m256i*>(planes.up + 3 * g),
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(above, byGroup), close));
        _mm256_storeu_si256(
            reinterpret_cast<__m256i*>(planes.down + 3 * g),
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(below, byGroup), close));
    }
    // The last groups by one more chunk where the source goes on (the planes have room).
    for (; g < groups && 6 * g + 28 <= available; g += 4) {
        const uint8_t* src = row + 6 * g;
        Planes4(Load128(src), Load128(src + 12), planes.luma + 4 * g, planes.up + 3 * g,
                planes.down + 3 * g);
    }
    for (; g < groups; ++g) GroupPlanes(row + 6 * g, g, planes);
}

// For each 16 output bytes of a row: where they go, the windows they come from and the shuffles
// within them. The last block overlaps the one before it rather than pass the row's end.
struct Picks {
    std::vector<uint32_t> outAt, lumaAt, offsetAt;
    std::vector<std::array<int8_t, 16>> lumaMask, offsetMask;
};

// False when the kept columns leave gaps in the output row, or lie too far apart for a window.
bool MakePicks(const FrameGeometry& geometry, const int32_t* map, Picks& picks) {
    std::vector<uint32_t> column;  // source column of each output pixel
    for (uint64_t i = 0; i < geometry.groupsPerRow * 4; ++i) {
        if (map[i] < 0) continue;
        if (uint64_t(map[i]) != 3 * column.size()) return false;
        column.push_back(static_cast<uint32_t>(i));
    }
    const uint64_t bytes = 3 * column.size();
    if (bytes < 16) return false;
    for (uint64_t at = 0;; at += 16) {
        at = std::min(at, bytes - 16);
        const uint32_t first = column[at / 3], group = first / 4;
        std::array<int8_t, 16> luma{}, offset{};
        for (int j = 0; j < 16; ++j) {
            const uint32_t c = column[(at + j) / 3];
            const uint32_t lumaAt = c - first, offsetAt = 3 * (c / 4 - group) + (at + j) % 3;
            if (lumaAt > 15 || offsetAt > 15) return false;
            luma[j] = static_cast<int8_t>(lumaAt);
            offset[j] = static_cast<int8_t>(offsetAt);
        }
        picks.outAt.push_back(static_cast<uint32_t>(at));
        picks.lumaAt.push_back(first);
        picks.offsetAt.push_back(3 * group);
        picks.lumaMask.push_back(luma);
        picks.offsetMask.push_back(offset);
        if (at + 16 == bytes) return true;
    }
}

__attribute__((target("ssse3"))) inline __m128i Pick16(const Picks& picks, size_t k,
                                                       const Planes& planes) {
    const __m128i at = Load128(picks.offsetMask[k].data());
    const __m128i luma =
        _mm_shuffle_epi8(Load128(planes.luma + picks.lumaAt[k]), Load128(picks.lumaMask[k].data()));
    const __m128i up = _mm_shuffle_epi8(Load128(planes.up + picks.offsetAt[k]), at);
    const __m128i down = _mm_shuffle_epi8(Load128(planes.down + picks.offsetAt[k]), at);
    return _mm_subs_epu8(_mm_adds_epu8(luma, up), down);
}

using Picker = void (*)(const Picks& picks, const Planes& planes, uint8_t* out);

__attribute__((target("ssse3"))) void PickSsse3(const Picks& picks, const Planes& planes,
                                                uint8_t* out) {
    const size_t blocks = picks.outAt.size();
    for (size_t k = 0; k < blocks; ++k) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + picks.outAt[k]),
                         Pick16(picks, k, planes));
    }
}

__attribute__((target("avx2"))) inline __m256i Windows(const uint8_t* plane, uint32_t low,
                                                       uint32_t high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(plane + low)),
                                   Load128(plane + high), 1);
}

// Two blocks at a time, one in each lane; all but the last block follow one another.
__attribute__((target("avx2"))) void PickAvx2(const Picks& picks, const Planes& planes,
                                              uint8_t* out) {
    const size_t blocks = picks.outAt.size();
    const uint32_t* lumaAt = picks.lumaAt.data();
    const uint32_t* offsetAt = picks.offsetAt.data();
    const int8_t* lumaMask = picks.lumaMask.data()->data();
    const int8_t* offsetMask = picks.offsetMask.data()->data();
    const uint8_t* luma = planes.luma;
    const uint8_t* up = planes.up;
    const uint8_t* down = planes.down;
    size_t k = 0;
    for (; k + 3 <= blocks; k += 2) {
        const __m256i at =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(offsetMask + 16 * k));
        const __m256i lumaShuffle =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lumaMask + 16 * k));
        const uint32_t o0 = offsetAt[k], o1 = offsetAt[k + 1];
        const __m256i y = _mm256_shuffle_epi8(Windows(luma, lumaAt[k], lumaAt[k + 1]), lumaShuffle);
        const __m256i above = _mm256_shuffle_epi8(Windows(up, o0, o1), at);
        const __m256i below = _mm256_shuffle_epi8(Windows(down, o0, o1), at);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16 * k),
                            _mm256_subs_epu8(_mm256_adds_epu8(y, above), below));
    }
    for (; k < blocks; ++k) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + picks.outAt[k]),
                         Pick16(picks, k, planes));
    }
}

struct VectorPath {
    RowConverter convertRow;
    RunCopier copyRuns;
    bool gathers;
    PlaneSplitter split;
    Picker pick;
};

// The tables for the last map converted on this thread: a live view keeps its size for long.
struct PickCache {
    std::vector<int32_t> map;
    bool pickable = false;
    Picks picks;
    std::vector<uint8_t> scratch;
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
            // Picking pays where it leaves a fifth of the columns or more uncomputed (measured: 9
            // columns to 8 are faster whole, 4 to 3 and 9 to 4 faster picked). Every column kept
            // in place goes straight into the output row by the whole-row path.
            cache.pickable = int64_t(geometry.width) * 4 >= int64_t(geometry.outWidth) * 5 &&
                             MakePicks(geometry, map, cache.picks);
            if (cache.pickable) {
                cache.scratch.resize(
                    2 * (static_cast<size_t>(geometry.groupsPerRow * 10) + 3 * kPlaneSlack));
            }
            cache.map.assign(map, map + columns);
        }
        pickable = cache.pickable && path.pick;
    } catch (const std::bad_alloc&) {
        cache = PickCache();
    }
    const Picks& picks = cache.picks;
    std::vector<uint8_t>& scratch = cache.scratch;
    int32_t y = 0;
    if (pickable) {
        const uint64_t groups = geometry.groupsPerRow;
        const uint64_t rowBytes = groups * 6;
        const uint64_t stride = static_cast<uint64_t>(geometry.outWidth) * 3;
        // Whole rows only; a block that stops short ends in the whole-row path.
        const auto whole = [&](int32_t row) {
            const uint64_t rowStart = static_cast<uint64_t>(row) * rowBytes;
            return source && row < geometry.height && rowStart < sourceSize &&
                   sourceSize - rowStart >= rowBytes;
        };
        // Two sets of planes: a row is split one row ahead of its picking, so that the windows
        // read stores that have left the store buffer (a window across pending stores stalls).
        const uint64_t set = groups * 10 + 3 * kPlaneSlack;
        Planes planes[2];
        for (int k = 0; k < 2; ++k) {
            uint8_t* base = scratch.data() + k * set;
            planes[k] = {base, base + 4 * groups + kPlaneSlack,
                         base + 7 * groups + 2 * kPlaneSlack};
        }
        const auto split = [&](int32_t row) {
            const uint64_t rowStart = static_cast<uint64_t>(row) * rowBytes;
            path.split(source + rowStart, sourceSize - rowStart, groups, planes[row & 1]);
        };
        if (whole(0)) split(0);
        for (; whole(y); ++y) {
            if (whole(y + 1)) split(y + 1);
            path.pick(
                picks, planes[y & 1],
                pixels + static_cast<uint64_t>(geometry.height - 1 - y) * stride + geometry.pad);
        }
    }
    ConvertVector(source, sourceSize, geometry, map, pixels, path.convertRow, path.copyRuns,
                  path.gathers, y);
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
                      {RowAvx2, CopyRunsAvx2, true, PlanesAvx2, PickAvx2});
    } else if (path == PixelPath::Ssse3) {
        ConvertPicked(source, sourceSize, geometry, map, pixels,
                      {RowSsse3, CopyRunsSse2, false, PlanesSsse3, PickSsse3});
    } else if (path == PixelPath::Sse2) {
        ConvertPicked(source, sourceSize, geometry, map, pixels,
                      {RowSse2, CopyRunsSse2, false, nullptr, nullptr});
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
