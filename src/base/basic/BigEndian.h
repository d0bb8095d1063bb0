// Big-endian (network order) coding of fixed-width integers, used by every
// on-disk and cipher-text format of the system.
#ifndef OVRA_BASE_BASIC_BIG_ENDIAN_H
#define OVRA_BASE_BASIC_BIG_ENDIAN_H

#include <cstddef>
#include <cstdint>

namespace OvraBase {
namespace Basic {

template <typename T>
inline void StoreBigEndian(uint8_t* out, T value) noexcept
{
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
    }
}

template <typename T>
inline T LoadBigEndian(const uint8_t* in) noexcept
{
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = static_cast<T>((value << 8) | in[i]);
    }
    return value;
}

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_BIG_ENDIAN_H
