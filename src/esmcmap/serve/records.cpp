// What a state costs is what it does not share with the one before it. The oldest go first.
#include "esmcmap/serve/records.h"

namespace esmcmap {

namespace {

std::size_t own_octets(const picture& now, const picture* before) {
    std::size_t octets = sizeof(picture) + (now.nodes.size() + now.links.size()) * 2 * sizeof(piece);
    const auto add = [&](const std::vector<piece>& pieces, const std::vector<piece>* old) {
        for (std::size_t i = 0, j = 0; i < pieces.size(); ++i) {
            while (old && j < old->size() && (*old)[j].id < pieces[i].id) ++j;
            const bool shared = old && j < old->size() && (*old)[j].json == pieces[i].json;
            if (!shared) octets += pieces[i].json->size() + 64;
        }
    };
    add(now.nodes, before ? &before->nodes : nullptr);
    add(now.links, before ? &before->links : nullptr);
    return octets;
}

message event(const char* name, const std::string& data, std::uint64_t seq) {
    return std::make_shared<const std::string>(std::string("event: ") + name +
                                               "\nid: " + std::to_string(seq) + "\ndata: " + data + "\n\n");
}

message tick(const picture& of) {
    return event("tick", "{\"t\":" + std::to_string(of.t) + "}", of.seq);
}

}  // namespace

void records::publish(picture made) {
    const std::unique_lock held(lock);
    const std::shared_ptr<const picture> before = latest;
    const bool differs = !before || share(made, *before);
    made.seq = before ? before->seq + differs : 1;
    for (change& one : made.changes) {
        one.seq = made.seq;
        changes.push_back(one);
    }
    while (changes.size() > MOST_CHANGES) changes.pop_front();
    const auto state = std::make_shared<const picture>(std::move(made));
    if (differs) record(state, own_octets(*state, before.get()));
    latest = state;
    messages.push_back(
        differs ? event("change", before ? difference_json(*state, *before) : whole_json(*state), state->seq)
                : tick(*state));
    message_octets += messages.back()->size();
    while (messages.size() > MOST_MESSAGES || (messages.size() > 1 && message_octets > budget)) {
        message_octets -= messages.front()->size();
        messages.pop_front();
        ++first_message;
    }
    news.notify_all();
}

void records::record(const std::shared_ptr<const picture>& state, std::size_t octets) {
    states.push_back({state, octets});
    cost += octets;
    while (states.size() > 1 && (cost > budget || states.size() > MOST_STATES)) {
        // What the next one shares with the oldest is now its own.
        cost -= states[0].cost + states[1].cost;
        states.pop_front();
        states[0].cost = own_octets(*states[0].state, nullptr);
        cost += states[0].cost;
    }
}

void records::close() {
    const std::unique_lock held(lock);
    closed = true;
    news.notify_all();
}

std::shared_ptr<const picture> records::now() const {
    const std::unique_lock held(lock);
    return latest;
}

std::shared_ptr<const picture> records::recorded(std::uint64_t seq) const {
    const std::unique_lock held(lock);
    if (states.empty() || seq < states.front().state->seq || seq > states.back().state->seq) return nullptr;
    return states[seq - states.front().state->seq].state;
}

std::string records::history_json() const {
    const std::unique_lock held(lock);
    std::string text = "{\"states\":[";
    for (const kept& one : states) {
        const picture& of = *one.state;
        if (text.back() == '}') text += ',';
        text += "{\"seq\":" + std::to_string(of.seq) + ",\"t\":" + std::to_string(of.t) +
                ",\"loops\":" + std::to_string(of.loop_count) +
                ",\"islands\":" + std::to_string(of.island_count) +
                ",\"silent\":" + std::to_string(of.silent_count) + "}";
    }
    return text + "]}";
}

std::string records::changes_json() const {
    const std::unique_lock held(lock);
    return "{\"changes\":" + esmcmap::changes_json({changes.begin(), changes.end()}) + "}";
}

bool records::next_messages(stream_place& place, std::vector<message>& out,
                            std::chrono::milliseconds longest) const {
    std::unique_lock held(lock);
    const auto end = [&] { return first_message + messages.size(); };
    const auto ready = [&] { return closed || (latest && (place.next == 0 || place.next < end())); };
    if (!news.wait_for(held, longest, ready)) {
        if (latest)
            out.push_back(tick(*latest));  // a viewer that hears nothing for long thinks the connection lost
        return true;
    }
    if (closed) return false;
    if (place.next < first_message) {
        out.push_back(event("state", whole_json(*latest), latest->seq));
    } else {
        for (std::uint64_t number = place.next; number < end(); ++number)
            out.push_back(messages[number - first_message]);
    }
    place.next = end();
    return true;
}

}  // namespace esmcmap
