#include "TX3GReading.h"

namespace subtitletest {

namespace {

uint32_t be(const std::vector<uint8_t>& b, size_t at, int bytes)
{
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | b[at + size_t(i)];
    return value;
}

} // namespace

TX3GSample parseTX3G(const std::vector<uint8_t>& bytes)
{
    TX3GSample sample;
    if (bytes.size() < 2) return sample;
    const size_t length = be(bytes, 0, 2);
    if (2 + length > bytes.size()) return sample;
    sample.text.assign(bytes.begin() + 2, bytes.begin() + 2 + long(length));
    size_t at = 2 + length;
    while (at + 8 <= bytes.size()) {
        const size_t size = be(bytes, at, 4);
        const std::string type(bytes.begin() + long(at) + 4, bytes.begin() + long(at) + 8);
        if (size < 8 || at + size > bytes.size()) return sample;
        if (type == "styl") {
            sample.hasStyles = true;
            const size_t count = be(bytes, at + 8, 2);
            if (size != 10 + 12 * count) return sample;
            for (size_t i = 0; i < count; ++i) {
                const size_t r = at + 10 + 12 * i;
                sample.styles.push_back({int(be(bytes, r, 2)), int(be(bytes, r + 2, 2)), int(bytes[r + 6]),
                                         int(bytes[r + 7]), be(bytes, r + 8, 4)});
            }
        } else if (type == "tbox" && size == 16) {
            sample.box = Box {int(be(bytes, at + 8, 2)), int(be(bytes, at + 10, 2)), int(be(bytes, at + 12, 2)),
                              int(be(bytes, at + 14, 2))};
        } else if (type == "frcd" && size == 8) {
            sample.forced = true;
        }
        at += size;
    }
    sample.wellFormed = at == bytes.size();
    return sample;
}

} // namespace subtitletest
