// What the virtual camera's pictures show: stills as baseline JPEG files, live-view frames in the
// camera's YUV layout and movies as small QuickTime files, each telling which camera and which
// shot or frame it is, so that a contact sheet or a moving live view shows it at a glance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orqsim {

using Bytes = std::vector<uint8_t>;

// Which camera took a picture, which shot it is and when (seconds since 1970, UTC).
struct PictureLabel {
    std::string model;
    std::string serial;
    uint32_t shot = 0;
    int64_t time = 0;
    // A still whose make is set carries them in its Exif too, where the build has libexif:
    // the same instant in microseconds, and the focal length at the shot (0: none).
    std::string make;
    int64_t timeUs = 0;
    uint32_t focalHundredths = 0;
    uint16_t focal35mm = 0;
};

// Whether stills are real JPEG files in this build (libjpeg-turbo); otherwise they are bytes
// between JPEG markers of a size chosen by the caller.
bool JpegPicturesBuilt();

// A baseline JPEG of width x height pixels: colour bars that differ from camera to camera, and
// the label in a box. Empty on failure (and where JpegPicturesBuilt is false).
Bytes StillPicture(const PictureLabel& label, int width, int height);
// The size of that file without building it: what the card tells before the file is read.
// Building it later gives exactly this many bytes. 0 on failure.
size_t StillPictureSize(const PictureLabel& label, int width, int height);

// What a live-view frame shows: a pattern scaled by the zoom, a bar that moves with the frame
// number, and the model and frame number as text.
struct LiveViewScene {
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t frame = 0;
    int32_t zoom = 0;
    int32_t maxZoom = 0;
    uint32_t seed = 0;  // tells cameras apart: the pattern's colours
    std::string model;
};

// `size` bytes of live-view memory: groups of four pixels in six bytes (U Y V Y Y Y), rows of
// (width - 1) / 4 + 1 groups one after the other.
Bytes LiveViewFrame(const LiveViewScene& scene, size_t size);

// A QuickTime movie of motion-JPEG frames, ten a second for `milliseconds` (at least one,
// at most a minute's worth), each a small still with the label and its frame number.
Bytes Movie(const PictureLabel& label, uint32_t milliseconds);

// `size` bytes (at least 4) of content that looks like a JPEG to anyone who checks the markers.
Bytes JpegLike(size_t size, uint32_t seed);

// A number from a text, to tell cameras apart by their serials.
uint32_t Seed(const std::string& text);

}  // namespace orqsim
