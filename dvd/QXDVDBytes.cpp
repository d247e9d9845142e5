#include "qxmedia/dvd/QXDVDBytes.h"

#include <algorithm>

QXDVDBytes QXDVDBytes::slice(size_t offset, size_t length) const
{
    if (offset >= size_) return {};
    return QXDVDBytes(data_ + offset, std::min(length, size_ - offset));
}

std::string QXDVDBytes::text(size_t offset, size_t length) const
{
    const QXDVDBytes part = slice(offset, length);
    const uint8_t* end = std::find(part.data(), part.data() + part.size(), uint8_t(0));
    return std::string(reinterpret_cast<const char*>(part.data()), reinterpret_cast<const char*>(end));
}
