#pragma once

#include "library/result.h"

#include <QString>

#include <cstdint>

namespace qm::wayland {

// What the desktop's screen-share dialog offers to share, as the portal numbers it.
enum class SourceType : std::uint32_t { monitor = 1, window = 2 };

// The user's standing answer to screen sharing, as far as this program has seen it.
enum class ShareConsent { notAsked, granted, declined };

// The portal's restore tokens, one per source type, kept in a small INI file so that later recordings start
// without the dialog. A token is single-use: the one a start returns replaces the one it was given. The file also
// remembers that the user cancelled the dialog, until a start succeeds again.
//
// Each call reads or writes the file itself, so instances in different places (the capture, the permission
// statuses) agree. Not for concurrent writers in one process.
class RestoreTokens {
public:
    // `path` empty: $XDG_DATA_HOME/Quillmoor/screencast.ini.
    explicit RestoreTokens(QString path = {});

    QString path() const { return m_path; }
    // Empty when none is stored.
    QString token(SourceType type) const;
    // Keeps `token` for `type` and clears a cancellation; an empty token forgets the stored one.
    expected<void, QString> store(SourceType type, const QString &token);
    expected<void, QString> forget(SourceType type);
    expected<void, QString> markDeclined();
    // declined after a cancellation; else granted once any token is stored; else notAsked.
    ShareConsent consent() const;

private:
    QString m_path;
};

} // namespace qm::wayland
