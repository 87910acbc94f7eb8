// Switches asked by SNMP: a walk of each one's MIB, so many values a request. All sessions are waited for
// together; a switch that says nothing costs its own question and no more.
//
// What an agent says is not believed: names must go up, and there is an end to how much is taken.
#include <algorithm>
#include <stdexcept>

#include "esmcmap/ask/address.h"
#include "esmcmap/ask/channel.h"
#include "esmcmap/ask/snmp_session.h"
#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

using std::chrono::milliseconds;

const object_name MODULE = {1, 3, 6, 1, 4, 1, ESMC_ENTERPRISE, 81};
const object_name UP_TIME = {1, 3, 6, 1, 2, 1, 1, 3};

// Values a request: as many as an agent gives that is not told otherwise, and as many as fit one datagram
// that no router parts. A switch that does not answer is asked the other way, since some networks lose parts.
constexpr int MANY = 100, FEW = 20;

bool begins_with(const object_name& name, const object_name& head) {
    return name.size() >= head.size() && std::equal(head.begin(), head.end(), name.begin());
}

// One walk: what it has brought, and where it goes on.
struct walk {
    mib_answer answer;
    object_name at = MODULE;
    std::size_t octets = 0;
    bool over = false;

    // Empty, or why the answer is garbage.
    std::string take(std::vector<named_value>& values) {
        for (named_value& one : values) {
            if (one.exists && begins_with(one.name, UP_TIME)) {
                answer.up_time = static_cast<std::uint32_t>(one.value.number);
                continue;
            }
            over = !one.exists || !begins_with(one.name, MODULE);
            if (over) return {};
            if (one.name <= at) return "its agent goes round in circles (names do not go up)";
            octets += sizeof(mib_binding) + one.value.octets.size();
            if (octets > ANSWER_LIMIT) return "the answer is longer than 4 MiB";
            at = one.name;
            keep(one);
        }
        return {};
    }

    void keep(named_value& one) {
        mib_binding& value = one.value;
        const std::size_t depth = one.name.size() - MODULE.size();
        if (depth > value.object.size()) return;  // none of ours
        std::copy(one.name.begin() + static_cast<std::ptrdiff_t>(MODULE.size()), one.name.end(),
                  value.object.begin());
        value.depth = static_cast<unsigned>(depth);
        answer.bindings.push_back(std::move(value));
    }
};

// One switch, and the question to it that is open.
class conversation {
  public:
    conversation(std::size_t index, const snmp_target& of, milliseconds timeout)
        : who(index), target(of), again(std::clamp(timeout / 3, milliseconds(200), milliseconds(1000))) {
        if (const auto read = read_agent_address(target.address)) address = *read;
    }

    bool busy() const { return asked; }

    void ask(moment until) {
        asked = true;
        deadline = until;
        now_walking = {};
        if (session) return begin();
        peers = numeric_peer(address);
        if (peers.empty())
            looking.emplace(address);
        else
            open_first();
    }

    void await(std::vector<pollfd>& waiting, moment& until) const {
        if (!asked) return;
        until = std::min(until, deadline);
        if (ended) until = moment::min();
        if (looking) waiting.push_back({looking->descriptor(), POLLIN, 0});
        if (!session) return;
        waiting.push_back({session->descriptor(), POLLIN, 0});
        until = std::min(until, std::chrono::steady_clock::now() + session->next_try());
        if (more_peers()) until = std::min(until, patience);
    }

    void take(const std::vector<int>& readable, moment now, std::vector<outcome>& into) {
        if (!asked) return;
        if (looking && looking->done())
            looked_up();
        else if (session)
            hear(std::binary_search(readable.begin(), readable.end(), session->descriptor()));
        if (!ended && session && more_peers() && now >= patience) open_next();
        if (!ended && now >= deadline) time_out();
        if (!ended) return;
        into.push_back(std::move(*ended));
        ended.reset();
        asked = false;
    }

  private:
    std::size_t who;
    snmp_target target;
    milliseconds again;
    agent_address address;
    std::optional<lookup> looking;
    std::vector<std::string> peers;  // of the name, those that are tried first in front
    std::size_t peer = 0;            // who is asked
    std::string answered;            // who answered last
    moment patience;                 // then another one is asked
    std::unique_ptr<snmp_session> session;
    bool asked = false, known_engine = false;
    bool heard_of = false, values_came = false;  // in this session
    moment deadline;
    walk now_walking;
    int most = MANY;
    std::size_t last_count = 0;  // values of the last whole walk
    std::optional<outcome> ended;

    void end(outcome how) {
        if (how.how != answer::ok) session.reset();  // the next question begins from the start
        looking.reset();
        ended = std::move(how);
    }

    void time_out() {
        if (session) most = most == MANY ? FEW : MANY;
        // Most agents say nothing when what they have deciphered makes no sense.
        const bool not_understood = heard_of && !values_came && !target.priv.empty();
        end(failed(who, answer::silent,
                   not_understood ? "it tells its engine and no more: wrong privacy pass phrase or protocol?"
                                  : "no answer in time"));
    }

    void looked_up() {
        const lookup done = std::move(*looking);
        looking.reset();
        peers = done.peers();
        if (!done.error().empty()) return end(failed(who, answer::silent, done.error()));
        open_first();
    }

    // Beginning with who answered last.
    void open_first() {
        const auto known = std::find(peers.begin(), peers.end(), answered);
        if (known != peers.end()) std::rotate(peers.begin(), known, peers.end());
        peer = 0;
        open();
    }

    // One that has answered stays.
    bool more_peers() const { return !heard_of && peer + 1 < peers.size(); }

    void open_next() {
        ++peer;
        open();
    }

    void open() {
        heard_of = values_came = false;
        patience = std::chrono::steady_clock::now() + again;
        try {
            session = std::make_unique<snmp_session>(target, peers[peer], again);
        } catch (const std::runtime_error& error) {
            return unreachable(error.what());
        }
        known_engine = !target.version_3;
        begin();
    }

    void unreachable(std::string why) {
        if (more_peers()) return open_next();
        end(failed(who, answer::silent, std::move(why)));
    }

    // What a reply leads to may end at once in another one.
    void hear(bool readable) {
        for (; session && !ended; readable = false) {
            std::optional<snmp_reply> reply = session->take(readable);
            if (!reply) return;
            heard(*reply);
        }
    }

    void begin() {
        if (known_engine)
            go_on();
        else
            session->find_engine();
    }

    // No more than the last walk had left to bring: what lies behind it is another module's.
    void go_on() {
        const std::size_t count = now_walking.answer.bindings.size();
        const auto left =
            static_cast<int>(std::min<std::size_t>(last_count > count ? last_count - count + 1 : MANY, MANY));
        session->get_next(now_walking.at, std::min(most, left), count == 0 ? &UP_TIME : nullptr);
    }

    void heard(snmp_reply& reply) {
        if (reply.what == snmp_reply::kind::unsent) return unreachable(std::move(reply.error));
        heard_of = true;
        answered = peers[peer];
        switch (reply.what) {
            case snmp_reply::kind::unsent:
            case snmp_reply::kind::failed:
                return end(failed(who, answer::silent, std::move(reply.error)));
            case snmp_reply::kind::found:
                known_engine = true;
                return go_on();
            case snmp_reply::kind::too_big:
                return ask_for_less();
            case snmp_reply::kind::values:
                break;
        }
        values_came = true;
        const std::size_t before = now_walking.octets;
        std::string wrong = now_walking.take(reply.values);
        if (!wrong.empty()) return end(failed(who, answer::garbage, std::move(wrong)));
        if (now_walking.over) return finish();
        if (now_walking.octets == before) return ask_for_less();
        go_on();
    }

    void ask_for_less() {
        if (most == 1)
            return end(failed(who, answer::silent, "its agent's answers have no room for a value"));
        most /= 2;
        go_on();
    }

    void finish() {
        const mib_answer& answer = now_walking.answer;
        last_count = answer.bindings.size();
        if (answer.bindings.empty())
            return end(failed(who, answer::silent,
                              "its agent has not our MIB (does esmcd run there as its sub-agent?)"));
        auto report = std::make_shared<switch_report>();
        auto values = std::make_shared<reported_values>();
        std::string wrong = read_mib(answer, *report, *values);
        now_walking = {};
        if (!wrong.empty()) return end(failed(who, answer::garbage, std::move(wrong)));
        end({who, answer::ok, {}, std::move(report), std::move(values)});
    }
};

class snmp_switches final : public channel {
  public:
    explicit snmp_switches(const switch_file& file) {
        const milliseconds timeout(file.timeout_ms);
        for (std::size_t who = 0; who < file.switches.size(); ++who) {
            const snmp_target& target = file.switches[who].snmp;
            if (file.switches[who].command.empty()) snmp_session::prepare(target);
            all.push_back(std::make_unique<conversation>(who, target, timeout));
        }
    }

    void ask(std::size_t who, moment deadline) override { all[who]->ask(deadline); }

    void await(std::vector<pollfd>& waiting, moment& until) override {
        for (const auto& one : all) one->await(waiting, until);
    }

    void take(const std::vector<pollfd>& ready, moment now, std::vector<outcome>& ended) override {
        std::vector<int> readable;
        for (const pollfd& one : ready)
            if (one.revents) readable.push_back(one.fd);
        std::sort(readable.begin(), readable.end());
        for (const auto& one : all) one->take(readable, now, ended);
    }

    bool busy() const override {
        return std::any_of(all.begin(), all.end(), [](const auto& one) { return one->busy(); });
    }

  private:
    std::vector<std::unique_ptr<conversation>> all;  // by index in the file
};

}  // namespace

std::unique_ptr<channel> snmp_channel(const switch_file& file) {
    return std::make_unique<snmp_switches>(file);
}

}  // namespace esmcmap
