// Compares by sums of what is told. A subject of which nothing is known any more is told so, once.
#include "nsmd/details.h"

#include <cstring>
#include <iterator>

namespace {

constexpr unsigned FREQUENCY_TURNS = 10;

std::uint32_t add(std::uint32_t sum, std::uint64_t value) {
    for (int shift = 0; shift < 64; shift += 8)
        sum = (sum ^ static_cast<std::uint8_t>(value >> shift)) * 16777619U;  // FNV-1a
    return sum;
}

std::uint32_t sum_of_steady(const dpll_detail& d) {
    std::uint32_t sum = 2166136261U;
    for (const std::uint32_t word : {d.known, d.error, d.quality, d.state}) sum = add(sum, word);
    for (const char octet : d.label) sum = add(sum, static_cast<std::uint8_t>(octet));
    return sum;
}

// Never 0.
std::uint32_t sum_of(const dpll_detail& d) {
    return add(add(sum_of_steady(d), static_cast<std::uint64_t>(d.offset_ppt)), d.frequency_mhz) | 1;
}

void tell_change(void* arg, const dpll_detail& d) {
    auto* t = static_cast<detail_teller*>(arg);
    if (d.subject >= std::size(t->seen)) return;
    t->seen[d.subject] = true;
    const std::uint32_t steady = sum_of_steady(d), whole = sum_of(d);
    const bool moved = t->turns % FREQUENCY_TURNS == 0 && t->whole[d.subject] != whole;
    if (t->steady[d.subject] == steady && !moved) return;
    t->steady[d.subject] = steady;
    t->whole[d.subject] = whole;
    nsmd_server_send_detail(t->server, nullptr, d);
}

void tell_ends(detail_teller* t) {
    for (std::uint32_t subject = 0; subject < std::size(t->seen); ++subject) {
        if (t->seen[subject] || !t->whole[subject]) continue;
        dpll_detail nothing{};
        nothing.subject = subject;
        t->steady[subject] = t->whole[subject] = 0;
        nsmd_server_send_detail(t->server, nullptr, nothing);
    }
}

}  // namespace

void details_tell_changes(detail_teller* t, const dpll_backend& clock) {
    if (!clock.details) return;
    ++t->turns;
    std::memset(t->seen, 0, sizeof t->seen);
    clock.details(clock.self, tell_change, t);
    tell_ends(t);
}

void details_tell_all(detail_teller* t, nsmd_peer* peer, const dpll_backend& clock) {
    struct target {
        detail_teller* teller;
        nsmd_peer* peer;
    } to = {t, peer};
    const auto tell = [](void* arg, const dpll_detail& d) {
        const auto* one = static_cast<const target*>(arg);
        nsmd_server_send_detail(one->teller->server, one->peer, d);
    };
    if (clock.details) clock.details(clock.self, tell, &to);
}
