#pragma once

#include <QString>

#include <array>
#include <optional>
#include <utility>

namespace qm {

// Each stored enumeration specialises EnumText with `cases`: every case with its raw value, in the
// order the cases are offered. The raw value is what files and settings hold; matching is exact.
template <class E> struct EnumText;

template <class E> constexpr auto allCases()
{
    std::array<E, EnumText<E>::cases.size()> out{};
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = EnumText<E>::cases[i].first;
    return out;
}

template <class E> QString rawValue(E value)
{
    for (const auto &[c, raw] : EnumText<E>::cases) {
        if (c == value)
            return QString::fromLatin1(raw);
    }
    return {};
}

template <class E> std::optional<E> fromRawValue(const QString &raw)
{
    for (const auto &[c, text] : EnumText<E>::cases) {
        if (raw == QLatin1String(text))
            return c;
    }
    return std::nullopt;
}

} // namespace qm
