// Line by line, and every fault at once: who corrects a file wants to know all of them.
#include "esmcmap/ask/switch_file.h"

#include <charconv>
#include <cmath>
#include <set>
#include <stdexcept>

#include "esmcmap/ask/address.h"
#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

struct fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// One word from the front of `rest`, its quotes taken off.
std::string next_word(std::string_view& rest) {
    std::string word;
    char quote = 0;
    std::size_t at = 0;
    for (; at < rest.size() && (quote || !blank(rest[at])); ++at) {
        const char c = rest[at];
        if (quote ? c == quote : c == '"' || c == '\'')
            quote = quote ? '\0' : c;
        else
            word += c;
    }
    if (quote) throw fault(std::string("a quote ") + quote + " is not closed");
    rest.remove_prefix(at);
    return word;
}

std::vector<std::string> words_of(std::string_view line) {
    std::vector<std::string> words;
    for (;;) {
        while (!line.empty() && blank(line.front())) line.remove_prefix(1);
        if (line.empty() || line.front() == '#') return words;
        words.push_back(next_word(line));
    }
}

int milliseconds(const std::vector<std::string>& words, double least, double most) {
    double seconds = 0;
    const char* end = words.size() == 2 ? words[1].data() + words[1].size() : nullptr;
    const bool number = end && std::from_chars(words[1].data(), end, seconds).ptr == end && !words[1].empty();
    if (!number || !(seconds >= least && seconds <= most)) {
        const auto plain = [](double value) {
            return std::to_string(value).substr(0, value < 1 ? 3 : std::to_string(value).find('.'));
        };
        throw fault(words[0] + " wants a number of seconds from " + plain(least) + " to " + plain(most));
    }
    return static_cast<int>(std::lround(seconds * 1000));
}

bool one_of(const std::string& word, std::initializer_list<const char*> words) {
    for (const char* known : words)
        if (word == known) return true;
    return false;
}

void read_version_3(const std::vector<std::string>& words, snmp_target& target) {
    constexpr const char* FORM =
        "v3 wants USER noAuthNoPriv | USER authNoPriv AUTH PASS | USER authPriv AUTH PASS PRIV PASS";
    if (words.size() < 7) throw fault(FORM);
    target.version_3 = true;
    target.user = words[5];
    target.level = words[6];
    const std::size_t wanted = target.level == "noAuthNoPriv" ? 7
                               : target.level == "authNoPriv" ? 9
                               : target.level == "authPriv"   ? 11
                                                              : 0;
    if (words.size() != wanted) throw fault(FORM);
    constexpr std::size_t LEAST_PASS = 8;  // RFC 3414
    if (wanted >= 9) {
        target.auth = words[7];
        target.auth_pass = words[8];
        if (!one_of(target.auth, {"MD5", "SHA", "SHA-224", "SHA-256", "SHA-384", "SHA-512"}))
            throw fault("no authentication protocol: " + target.auth);
        if (target.auth_pass.size() < LEAST_PASS) throw fault("a pass phrase has at least 8 characters");
    }
    if (wanted == 11) {
        target.priv = words[9];
        target.priv_pass = words[10];
        if (!one_of(target.priv, {"DES", "AES"})) throw fault("no privacy protocol: " + target.priv);
        if (target.priv_pass.size() < LEAST_PASS) throw fault("a pass phrase has at least 8 characters");
    }
}

snmp_target read_snmp(const std::vector<std::string>& words) {
    snmp_target target;
    if (words.size() < 5) throw fault("snmp wants ADDRESS v2c COMMUNITY, or ADDRESS v3 and more");
    target.address = words[3];
    if (!read_agent_address(target.address))
        throw fault("no address of an agent: " + target.address + " (ADDRESS or ADDRESS:PORT)");
    if (words[4] == "v3") {
        read_version_3(words, target);
    } else {
        if (words[4] != "v2c" || words.size() != 6)
            throw fault("snmp wants ADDRESS v2c COMMUNITY, or ADDRESS v3 and more");
        target.community = words[5];
    }
    return target;
}

// A name is a word on the terminal, in addresses of the page and in labels; an address in its place would be
// taken for a stranger.
void check_name(const std::string& name) {
    constexpr std::size_t LONGEST = 64;
    if (name.empty() || name.size() > LONGEST) throw fault("a switch's name has 1 to 64 characters");
    for (const char c : name)
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f || c == '~')
            throw fault("a switch's name has no blank, no ~ and no control character");
    if (tame(name, LONGEST) != name)
        throw fault("a switch's name is text in UTF-8, without marks of direction");
    if (name.size() == 17 && name[2] == ':' && name[5] == ':') throw fault("a switch's name is no address");
}

switch_entry read_switch(const std::vector<std::string>& words) {
    if (words.size() < 4) throw fault("switch wants NAME command ARGV..., or NAME snmp ADDRESS ...");
    check_name(words[1]);
    switch_entry entry{words[1], {}, {}};
    if (words[2] == "command")
        entry.command.assign(words.begin() + 3, words.end());
    else if (words[2] == "snmp")
        entry.snmp = read_snmp(words);
    else
        throw fault("a switch is asked by command or by snmp, not by " + words[2]);
    if (!entry.command.empty() && entry.command[0].empty()) throw fault("the command has no name");
    return entry;
}

void read_line(const std::vector<std::string>& words, switch_file& file, std::set<std::string>& names) {
    if (words[0] == "every") {
        file.every_ms = milliseconds(words, 0.2, 3600);
    } else if (words[0] == "timeout") {
        file.timeout_ms = milliseconds(words, 0.5, 60);
    } else if (words[0] == "switch") {
        switch_entry entry = read_switch(words);
        if (!names.insert(entry.name).second) throw fault("a second switch " + entry.name);
        file.switches.push_back(std::move(entry));
    } else {
        throw fault("a line begins with switch, every or timeout, not with " + words[0]);
    }
}

}  // namespace

switch_file read_switch_file(std::string_view text, const std::string& name,
                             std::vector<std::string>& faults) {
    constexpr std::size_t LONGEST_FAULT = 300;  // it may quote what stands there
    switch_file file;
    std::set<std::string> names;
    const std::size_t before = faults.size();
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        try {
            const std::vector<std::string> words = words_of(line);
            if (!words.empty()) read_line(words, file, names);
        } catch (const fault& wrong) {
            faults.push_back(name + ":" + std::to_string(number) + ": " + tame(wrong.what(), LONGEST_FAULT));
        }
    }
    if (file.switches.empty() && faults.size() == before) faults.push_back(name + ": no switch in it");
    return file;
}

}  // namespace esmcmap
