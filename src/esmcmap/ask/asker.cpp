// One wait for all channels.
#include "esmcmap/ask/asker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "esmcmap/ask/channel.h"
#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

int milliseconds_until(moment until) {
    const moment now = std::chrono::steady_clock::now();
    if (until <= now) return 0;  // it may be the least of all moments
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60000));
}

class all_channels final : public asker {
  public:
    explicit all_channels(const switch_file& file) : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (wake < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
        for (const switch_entry& entry : file.switches) by_command.push_back(!entry.command.empty());
        commands = command_channel(file);
        if (std::count(by_command.begin(), by_command.end(), false)) snmp = snmp_channel(file);
    }
    ~all_channels() override { close(wake); }

    void ask(std::size_t who, moment deadline) override {
        (by_command[who] ? commands : snmp)->ask(who, deadline);
    }

    std::vector<outcome> wait(moment until) override {
        std::vector<pollfd> waiting{{wake, POLLIN, 0}};
        commands->await(waiting, until);
        if (snmp) snmp->await(waiting, until);
        poll(waiting.data(), waiting.size(), milliseconds_until(until));
        const moment now = std::chrono::steady_clock::now();
        std::vector<outcome> ended;
        commands->take(waiting, now, ended);
        if (snmp) snmp->take(waiting, now, ended);
        return ended;
    }

    bool busy() const override { return commands->busy() || (snmp && snmp->busy()); }
    // Left unread: every further wait returns at once too.
    void stop() override { (void)eventfd_write(wake, 1); }

  private:
    int wake;
    std::vector<bool> by_command;
    std::unique_ptr<channel> commands, snmp;
};

}  // namespace

outcome failed(std::size_t who, answer how, std::string error) {
    return {who, how, std::move(error), nullptr, nullptr};
}

outcome read_outcome(std::size_t who, std::string_view text) {
    auto report = std::make_shared<switch_report>();
    auto values = std::make_shared<reported_values>();
    std::string error = read_json(text, *report, *values);
    if (!error.empty()) return failed(who, answer::garbage, std::move(error));
    return {who, answer::ok, {}, std::move(report), std::move(values)};
}

std::unique_ptr<asker> make_asker(const switch_file& file) {
    return std::make_unique<all_channels>(file);
}

}  // namespace esmcmap
