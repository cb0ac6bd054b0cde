#include "capture/pulse_client.h"

namespace plim {

PulseClient::~PulseClient()
{
    if (m_loop)
        pa_threaded_mainloop_stop(m_loop);
    if (m_context) {
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
    }
    if (m_loop)
        pa_threaded_mainloop_free(m_loop);
}

Status PulseClient::connect(const std::string& unreachable)
{
    m_loop = pa_threaded_mainloop_new();
    if (!m_loop)
        return fail(unreachable);
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), "Plim");
    if (!m_context)
        return fail(unreachable);
    pa_context_set_state_callback(m_context, [](pa_context*, void* loop) {
        pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
    }, m_loop);
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return fail(unreachable);
    PulseLock lock(m_loop);
    if (pa_threaded_mainloop_start(m_loop) < 0)
        return fail(unreachable);
    for (;;) {
        const pa_context_state_t state = pa_context_get_state(m_context);
        if (state == PA_CONTEXT_READY)
            return {};
        if (!PA_CONTEXT_IS_GOOD(state))
            return fail(unreachable);
        pa_threaded_mainloop_wait(m_loop);
    }
}

void PulseClient::wait(pa_operation* op) const
{
    if (!op)
        return;
    while (pa_operation_get_state(op) == PA_OPERATION_RUNNING)
        pa_threaded_mainloop_wait(m_loop);
    pa_operation_unref(op);
}

bool PulseClient::waitReady(pa_stream* stream) const
{
    for (;;) {
        const pa_stream_state_t state = pa_stream_get_state(stream);
        if (state == PA_STREAM_READY)
            return true;
        if (!PA_STREAM_IS_GOOD(state))
            return false;
        pa_threaded_mainloop_wait(m_loop);
    }
}

} // namespace plim
