#include "capture/pulse/pulseintrospection.h"

namespace qm::pulse {

namespace {

QString property(pa_proplist *list, const char *key)
{
    const char *value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

// Carries a single-answer query's continuation through libpulse's callback: the first item answers, the end
// of the list answers "nothing" if no item came, and the continuation is freed with the end of the list.
template <class Info> struct Single {
    std::function<void(std::optional<Info>)> then;
    bool answered = false;

    template <class Raw, class Convert> static void callback(int eol, const Raw *raw, void *data, Convert convert)
    {
        auto *self = static_cast<Single *>(data);
        if (eol == 0 && raw) {
            if (!self->answered) {
                self->answered = true;
                self->then(convert(*raw));
            }
            return;
        }
        if (!self->answered)
            self->then(std::nullopt);
        delete self;
    }
};

template <class Info> Single<Info> *single(std::function<void(std::optional<Info>)> then)
{
    return new Single<Info>{std::move(then)};
}

void release(pa_operation *operation)
{
    if (operation)
        pa_operation_unref(operation);
}

SinkInfo sinkOf(const pa_sink_info &raw)
{
    return {raw.index, QString::fromUtf8(raw.name), QString::fromUtf8(raw.monitor_source_name)};
}

SinkInputInfo sinkInputOf(const pa_sink_input_info &raw)
{
    SinkInputInfo info{raw.index, raw.sink, property(raw.proplist, PA_PROP_APPLICATION_PROCESS_BINARY), 0,
                       property(raw.proplist, PA_PROP_APPLICATION_NAME)};
    info.pid = property(raw.proplist, PA_PROP_APPLICATION_PROCESS_ID).toInt();
    return info;
}

void sinkCallback(pa_context *, const pa_sink_info *raw, int eol, void *data)
{
    Single<SinkInfo>::callback(eol, raw, data, sinkOf);
}

} // namespace

void requestServerInfo(pa_context *context, std::function<void(std::optional<ServerInfo>)> then)
{
    auto *carrier = new std::function<void(std::optional<ServerInfo>)>(std::move(then));
    pa_operation *operation = pa_context_get_server_info(
        context,
        [](pa_context *, const pa_server_info *raw, void *data) {
            std::unique_ptr<std::function<void(std::optional<ServerInfo>)>> owned(
                static_cast<std::function<void(std::optional<ServerInfo>)> *>(data));
            if (!raw)
                (*owned)(std::nullopt);
            else
                (*owned)(
                    ServerInfo{QString::fromUtf8(raw->default_sink_name), QString::fromUtf8(raw->default_source_name)});
        },
        carrier);
    if (!operation) {
        (*carrier)(std::nullopt);
        delete carrier;
    }
    release(operation);
}

void requestSource(pa_context *context, const QString &name, std::function<void(std::optional<SourceInfo>)> then)
{
    auto *carrier = single<SourceInfo>(std::move(then));
    pa_operation *operation = pa_context_get_source_info_by_name(
        context, name.toUtf8().constData(),
        [](pa_context *, const pa_source_info *raw, int eol, void *data) {
            Single<SourceInfo>::callback(eol, raw, data, [](const pa_source_info &info) {
                return SourceInfo{QString::fromUtf8(info.name), info.monitor_of_sink != PA_INVALID_INDEX};
            });
        },
        carrier);
    if (!operation)
        Single<SourceInfo>::callback(-1, static_cast<const pa_source_info *>(nullptr), carrier,
                                     [](const auto &) { return SourceInfo{}; });
    release(operation);
}

void requestSink(pa_context *context, const QString &name, std::function<void(std::optional<SinkInfo>)> then)
{
    auto *carrier = single<SinkInfo>(std::move(then));
    pa_operation *operation =
        pa_context_get_sink_info_by_name(context, name.toUtf8().constData(), sinkCallback, carrier);
    if (!operation)
        sinkCallback(context, nullptr, -1, carrier);
    release(operation);
}

void requestSink(pa_context *context, std::uint32_t index, std::function<void(std::optional<SinkInfo>)> then)
{
    auto *carrier = single<SinkInfo>(std::move(then));
    pa_operation *operation = pa_context_get_sink_info_by_index(context, index, sinkCallback, carrier);
    if (!operation)
        sinkCallback(context, nullptr, -1, carrier);
    release(operation);
}

void requestSinkInput(pa_context *context, std::uint32_t index, std::function<void(std::optional<SinkInputInfo>)> then)
{
    auto *carrier = single<SinkInputInfo>(std::move(then));
    auto callback = [](pa_context *, const pa_sink_input_info *raw, int eol, void *data) {
        Single<SinkInputInfo>::callback(eol, raw, data, sinkInputOf);
    };
    pa_operation *operation = pa_context_get_sink_input_info(context, index, callback, carrier);
    if (!operation)
        callback(context, nullptr, -1, carrier);
    release(operation);
}

void requestSinkInputs(pa_context *context, std::function<void(std::vector<SinkInputInfo>)> then)
{
    struct List {
        std::function<void(std::vector<SinkInputInfo>)> then;
        std::vector<SinkInputInfo> items;
    };
    auto *carrier = new List{std::move(then), {}};
    auto callback = [](pa_context *, const pa_sink_input_info *raw, int eol, void *data) {
        auto *list = static_cast<List *>(data);
        if (eol == 0 && raw) {
            list->items.push_back(sinkInputOf(*raw));
            return;
        }
        list->then(std::move(list->items));
        delete list;
    };
    pa_operation *operation = pa_context_get_sink_input_info_list(context, callback, carrier);
    if (!operation)
        callback(context, nullptr, -1, carrier);
    release(operation);
}

} // namespace qm::pulse
