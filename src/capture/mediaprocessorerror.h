#pragma once

#include <QString>

namespace qm {

// Why joining tracks or exporting speech failed.
struct MediaProcessorError {
    enum class Kind { failed, noInput };
    Kind kind = Kind::failed;
    QString message; // for `failed`: the media library's own words, or "reader", "writer", "read error", "write error"

    static MediaProcessorError failed(QString message) { return {Kind::failed, std::move(message)}; }
    static MediaProcessorError noInput() { return {Kind::noInput, {}}; }

    QString description() const;
};

} // namespace qm
