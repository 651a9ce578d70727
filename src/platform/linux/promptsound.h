#pragma once

#include <memory>

struct ca_context;

namespace qm::platform {

// Plays the freedesktop sound theme's "message-new-instant" event. Main thread; playing never blocks and a
// missing sound server or theme is silent.
class PromptSound {
public:
    PromptSound();
    ~PromptSound();
    void play();

private:
    struct Destroy {
        void operator()(ca_context *context) const;
    };
    std::unique_ptr<ca_context, Destroy> m_context;
};

} // namespace qm::platform
