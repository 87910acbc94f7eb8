// One switch's session of net-snmp's library: one request at a time goes out, and what came of it is taken
// later. Nothing here waits.
//
// The library is told to read no configuration and no modules, to keep no state in files and to print
// nothing. It knows version 3's users by engine and name for the whole process: two switches whose engines
// have one identity need one pass phrase for one user.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "esmcmap/ask/switch_file.h"
#include "esmcmap/model/read_mib.h"

namespace esmcmap {

using object_name = std::vector<std::uint32_t>;

struct named_value {
    object_name name;
    bool exists = true;  // false: no such object, or the end of what there is
    mib_binding value;   // its `object` is empty
};

struct snmp_reply {
    enum class kind : std::uint8_t {
        values,
        too_big,
        found,   // version 3: the engine has told its identity
        unsent,  // `error` says why
        failed,  // the same
    } what = kind::failed;
    std::vector<named_value> values;
    std::string error;
};

class snmp_session {
  public:
    // `peer` is numeric: "udp:192.0.2.1:161", "udp6:[::1]:161". A request that is not answered is sent again
    // after `again`. Throws std::runtime_error, in words.
    snmp_session(const snmp_target& target, const std::string& peer, std::chrono::milliseconds again);
    // What takes its time, and changes the environment for a moment, before there are other threads.
    static void prepare(const snmp_target& target);
    ~snmp_session();
    snmp_session(const snmp_session&) = delete;
    snmp_session& operator=(const snmp_session&) = delete;

    int descriptor() const;
    std::chrono::milliseconds next_try() const;  // until a request is sent again

    // Requests. Version 3 begins with `find_engine`.
    void find_engine();
    void get_next(const object_name& after, int repetitions, const object_name* scalar = nullptr);

    // Reads what has come, if anything can be, and sends again what is due. What came of the request, or
    // nothing yet.
    std::optional<snmp_reply> take(bool readable);

  private:
    struct inner;
    std::unique_ptr<inner> in;
};

}  // namespace esmcmap
