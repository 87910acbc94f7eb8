#include "core/statistics.h"

#include <algorithm>

#include "core/pdu.h"
#include "core/ports.h"

namespace {

bool is_event(const std::uint8_t* pdu) {
    return pdu[esmc::VERSION] & esmc::EVENT_FLAG;
}

void count_information(ssm_statistics& s, nanoseconds now) {
    const nanoseconds interval = now - s.last_information;
    s.last_information = now;
    if (++s.information_in == 1) {
        s.first_information = now;
        return;
    }
    if (s.information_in == 2 || interval < s.shortest) s.shortest = interval;
    if (interval > s.longest) s.longest = interval;
}

}  // namespace

nanoseconds ssm_mean_interval(const ssm_statistics& s) {
    return s.information_in < 2 ? 0 : (s.last_information - s.first_information) / (s.information_in - 1);
}

void ssm_statistics_heard(ssm_port* port, const std::uint8_t* pdu) {
    ssm_statistics& s = *port->statistics;
    const nanoseconds now = thread_now(g_p_esmcd);
    if (is_event(pdu)) {
        ++s.events_in;
        s.last_event = now;
    } else {
        count_information(s, now);
    }
    if (pdu[esmc::QUALITY] == QL_DNU) ++s.dnu_in;
}

void ssm_statistics_said(ssm_port* port, const std::uint8_t* pdu) {
    ssm_statistics& s = *port->statistics;
    ++(is_event(pdu) ? s.events_out : s.information_out);
    if (pdu[esmc::QUALITY] == QL_DNU) ++s.dnu_out;
    s.last_out = thread_now(g_p_esmcd);
}

void ssm_statistics_clear(ssm_port* port) {
    const auto clear = [](ssm_port* cleared) {
        ssm_statistics fresh = {};
        std::ranges::copy(cleared->statistics->source_times, fresh.source_times);
        fresh.began = fresh.cleared = thread_now(g_p_esmcd);
        *cleared->statistics = fresh;
    };
    if (port)
        clear(port);
    else
        ssm_port_walk(clear);
}
