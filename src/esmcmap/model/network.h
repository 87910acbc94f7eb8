// The network that the answers of many switches make: who is linked to whom, who follows whom, and what of it
// is wrong.
//
// Switches are joined by the addresses of their ports: a port's `neighbour` is the `address` of the port at
// the other end of its link. A neighbour that no known switch has is a stranger. A link that was heard once
// stays, as one that is down, until one of its ports hears somebody else.
//
// Answers are not of one moment. A loop, and a promise that a switch can't keep, count when two rounds of
// questions in a row show them; a change that is on its way through the network makes neither.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "esmcmap/model/layout.h"
#include "esmcmap/model/report.h"

namespace esmcmap {

enum class answer : std::uint8_t { waiting, ok, silent, garbage };
const char* answer_word(answer of);

// A switch of the operator's file, and what is known of it.
struct watched {
    std::string name;
    answer how = answer::waiting;
    std::int64_t answered_ms = 0;                 // since 1970; 0: never
    std::string error;                            // why it is not `ok`
    std::shared_ptr<const switch_report> report;  // its last answer; null before the first
};

struct peer {
    std::string node, port;  // empty: nobody, or not told by the addresses
};

struct node {
    std::string id;  // name of the switch, or the stranger's address
    bool stranger = false;
    answer how = answer::ok;
    std::int64_t answered_ms = 0;
    std::string error;
    std::shared_ptr<const switch_report> report;  // null: a stranger, or one that never answered
    std::vector<peer> peers;                      // of the report's ports, in their order
    std::string follows, root;                    // ids; empty: nobody, not known
    unsigned hops = 0;                            // links to the root
    bool loop = false, island = false, claim = false;
    point at;
};

struct link {
    std::string id;
    std::string a, a_port;  // a before b in the order of names; a port is empty that no address tells
    std::string b, b_port;
    bool up = false;
    char clock = 0;       // 'a': the clock goes from a to b; 'b': from b to a; 0: nobody follows here
    std::string quality;  // heard by who follows, or the better of both; empty: none
    bool loop = false;
};

struct island {
    std::string root, state;  // "holdover", "freerun"
    std::vector<std::string> switches;
};

struct claim {
    std::string who, says, has, why;  // qualities; `has` may be "none"
};

struct network {
    std::int64_t t = 0;  // ms since 1970
    std::vector<node> nodes;
    std::vector<link> links;
    std::vector<std::vector<std::string>> loops;  // each follows the one after it, the last one the first
    std::vector<island> islands;
    std::vector<claim> claims;
    std::vector<std::string> problems;
    bool suspicious = false;  // a loop or a claim that the next round may confirm
};

struct hearing;

// The links that were seen before.
class link_memory {
  public:
    // Says of the links of now whether they are up, and adds to them those of before that nothing
    // contradicts, as down.
    void add_old(std::vector<link>& now, const std::vector<hearing>& heard,
                 const std::vector<watched>& switches);

  private:
    std::map<std::string, link> known;  // by id, as they were last

    void forget(const std::vector<link>& now, const std::vector<watched>& switches);
};

// What was seen once, and what twice.
class suspicion {
  public:
    void begin(bool of_complete_round);
    bool stands(const std::string& what);  // whether this, which is seen now, counts
    bool open() const;                     // whether something was seen that does not count yet
    void end();

  private:
    bool complete = false;
    std::set<std::string> once, standing, now, counted;
};

class network_builder {
  public:
    // All switches of the file, each time, in the same order. `complete`: all that were asked in this round
    // have answered, or had their time; until then what is new is not confirmed.
    network next(const std::vector<watched>& switches, std::int64_t now_ms, bool complete);

  private:
    link_memory known_links;
    suspicion doubts;
    layout places;
};

}  // namespace esmcmap
