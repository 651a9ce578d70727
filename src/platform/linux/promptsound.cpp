#include "platform/linux/promptsound.h"

#include <canberra.h>

namespace qm::platform {

void PromptSound::Destroy::operator()(ca_context *context) const
{
    ca_context_destroy(context);
}

PromptSound::PromptSound()
{
    ca_context *context = nullptr;
    if (ca_context_create(&context) == CA_SUCCESS) {
        m_context.reset(context);
        ca_context_change_props(context, CA_PROP_APPLICATION_NAME, "Quillmoor", nullptr);
    }
}

PromptSound::~PromptSound() = default;

void PromptSound::play()
{
    if (m_context)
        ca_context_play(m_context.get(), 0, CA_PROP_EVENT_ID, "message-new-instant", CA_PROP_EVENT_DESCRIPTION,
                        "Zoom meeting detected", nullptr);
}

} // namespace qm::platform
