// Writes the uncompressed clip: a card of colours that moves, with a brightness that swells and fades.
//     test_card FILE
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 180;
constexpr int kPictures = 125; // 5 seconds
constexpr double kTurn = 6.283185307179586;

uint8_t clipped(double value) { return static_cast<uint8_t>(value < 16 ? 16 : value > 235 ? 235 : value); }

uint8_t luma(int x, int y, int picture) {
    const double swell = 24 * std::sin(kTurn * picture / kPictures);
    const bool square = ((x + 2 * picture) / 20 + (y + picture) / 20) % 2 != 0;
    return clipped(40 + 150.0 * x / kWidth + (square ? 30 : 0) + swell);
}

uint8_t colour(int x, int y, int picture, double phase) {
    const double angle = kTurn * (static_cast<double>(x) / kWidth + static_cast<double>(picture) / kPictures + phase);
    return clipped(128 + 90 * std::sin(angle) * y / kHeight);
}

void drawPicture(std::vector<uint8_t> &bytes, int picture) {
    bytes.clear();
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            bytes.push_back(luma(x, y, picture));
        }
    }
    for (const double phase : {0.0, 0.25}) { // the two planes of colour, at half the width and height
        for (int y = 0; y < kHeight; y += 2) {
            for (int x = 0; x < kWidth; x += 2) {
                bytes.push_back(colour(x, y, picture, phase));
            }
        }
    }
}

} // namespace

int main(int count, char **arguments) {
    std::FILE *const file = count == 2 ? std::fopen(arguments[1], "wb") : nullptr;
    if (file == nullptr) {
        std::fputs("usage: test_card FILE\n", stderr);
        return 2;
    }
    std::fprintf(file, "YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C420jpeg\n", kWidth, kHeight);
    std::vector<uint8_t> bytes;
    for (int picture = 0; picture < kPictures; ++picture) {
        drawPicture(bytes, picture);
        std::fputs("FRAME\n", file);
        std::fwrite(bytes.data(), 1, bytes.size(), file);
    }
    const bool failed = std::ferror(file) != 0;
    return std::fclose(file) != 0 || failed ? 1 : 0;
}
