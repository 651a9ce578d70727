#pragma once

// qm::expected / qm::unexpected: std::expected where the standard library ships it (GCC 12 in C++23 mode),
// and a small stand-in with the same surface for compilers that lack it (clang 14 builds the fuzzers).

#if __has_include(<expected>)
#include <expected>
#endif

#if defined(__cpp_lib_expected)

namespace qm {
using std::expected;
using std::unexpected;
} // namespace qm

#else

#include <cassert>
#include <utility>
#include <variant>

namespace qm {

template <class E> class unexpected {
public:
    explicit unexpected(E e) : m_error(std::move(e)) {}
    const E &error() const & { return m_error; }
    E &&error() && { return std::move(m_error); }

private:
    E m_error;
};

template <class T, class E> class expected {
public:
    expected(T value) : m_value(std::in_place_index<0>, std::move(value)) {}
    template <class G> expected(unexpected<G> e) : m_value(std::in_place_index<1>, E(std::move(e).error())) {}

    bool has_value() const { return m_value.index() == 0; }
    explicit operator bool() const { return has_value(); }
    const T &value() const & { return std::get<0>(m_value); }
    T &value() & { return std::get<0>(m_value); }
    T &&value() && { return std::get<0>(std::move(m_value)); }
    const T &operator*() const & { return value(); }
    T &operator*() & { return value(); }
    const T *operator->() const { return &value(); }
    T *operator->() { return &value(); }
    const E &error() const & { return std::get<1>(m_value); }

private:
    std::variant<T, E> m_value;
};

} // namespace qm

#endif
