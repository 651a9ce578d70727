#include "platform/linux/gnomeprivacy.h"

#include <gio/gio.h>

#include <memory>

namespace qm::platform {

namespace {

struct SchemaUnref {
    void operator()(GSettingsSchema *schema) const { g_settings_schema_unref(schema); }
};
struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};

constexpr const char *kSchema = "org.gnome.desktop.privacy";
constexpr const char *kKey = "disable-microphone";

} // namespace

bool GnomeMicrophonePrivacy::microphoneDisabled() const
{
    // GSettings aborts the program on an unknown schema or key, so both are looked up first. A fresh object per
    // read keeps this safe on any thread and always current.
    GSettingsSchemaSource *installed = g_settings_schema_source_get_default();
    if (!installed)
        return false;
    const std::unique_ptr<GSettingsSchema, SchemaUnref> schema(
        g_settings_schema_source_lookup(installed, kSchema, TRUE));
    if (!schema || !g_settings_schema_has_key(schema.get(), kKey))
        return false;
    const std::unique_ptr<GSettings, ObjectUnref> settings(g_settings_new_full(schema.get(), nullptr, nullptr));
    return g_settings_get_boolean(settings.get(), kKey);
}

} // namespace qm::platform
