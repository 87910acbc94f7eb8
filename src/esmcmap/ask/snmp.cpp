// Switches asked by SNMP.
#include "esmcmap/ask/channel.h"

namespace esmcmap {

namespace {

class no_snmp final : public channel {
  public:
    void ask(std::size_t who, moment) override { asked.push_back(who); }
    void await(std::vector<pollfd>&, moment& until) override {
        if (!asked.empty()) until = moment::min();
    }
    void take(const std::vector<pollfd>&, moment, std::vector<outcome>& ended) override {
        for (const std::size_t who : asked)
            ended.push_back(failed(who, answer::silent, "not asked: built without SNMP"));
        asked.clear();
    }
    bool busy() const override { return !asked.empty(); }

  private:
    std::vector<std::size_t> asked;
};

}  // namespace

std::unique_ptr<channel> snmp_channel(const switch_file&) {
    return std::make_unique<no_snmp>();
}

}  // namespace esmcmap
