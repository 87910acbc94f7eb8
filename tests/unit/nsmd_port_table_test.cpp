// Which links are ports, which index they get, and what is told of their changes.
#include <fstream>

#include "nsmd/links/port_index.h"
#include "nsmd_support.h"

namespace {

struct step_of_links {
    const char* happens;  // links by their texts, and the verbs below
    const char* told;
};

struct port_story {
    const char* fault;  // what it would be
    std::vector<step_of_links> steps;
    const char* said = "port";
    long times = 0;
};

struct links {
    log_lines log;
    virtual_loop loop;  // for the memory that it begins with
    recorded_table ports{{"sw*", "x?"}};
    const std::string path = "/tmp/nsmd-indexes-" + std::to_string(getpid());

    ~links() { unlink(path.c_str()); }
    void keep() { port_table_keep_indexes(ports.table, path.c_str()); }
    void link(const std::string& text) {
        const link_info info = info_of(text);
        if (info.kernel_ifindex) port_table_link(ports.table, info);
    }
    // From the first number to the last, and what to add to get the kernel's index; what is told is dropped.
    void many(std::istream& words) {
        long number, last, offset;
        for (words >> number >> last >> offset; number <= last; ++number)
            link("sw" + std::to_string(number) + " " + std::to_string(number + offset));
        ports.take();
    }
    void act(const std::string& text) {
        std::istringstream words(text);
        std::string verb;
        std::uint32_t index;
        words >> verb >> std::ws;
        if (verb == "gone" && words >> index) return port_table_link_gone(ports.table, index);
        if (verb == "dump") return port_table_dump_begin(ports.table);
        if (verb == "end") return port_table_dump_end(ports.table);
        if (verb == "no-memory") return memmgr_fail_at(1);
        if (verb == "many") return many(words);
        if (verb == "keep") return keep();
        if (verb == "restart") return ports.restart(), keep();
        if (verb == "blow-up") return void(std::ofstream(path) << std::string(100000, 'x'));
        if (verb != "file" && verb != "says") return link(text);
        // The file's lines end with semicolons here.
        std::string lines(std::istreambuf_iterator<char>(words), {}), content;
        std::replace(lines.begin(), lines.end(), ';', '\n');
        if (verb == "file") std::ofstream(path) << lines;
        std::getline(std::ifstream(path), content, '\0');
        EXPECT_EQ(content, lines);
    }
    void play(const port_story& story) {
        SCOPED_TRACE(story.fault);
        for (const auto& [happens, told] : story.steps) {
            for (const auto& one : parts_of(happens)) act(one);
            EXPECT_EQ(ports.take(), told) << happens;
        }
        memmgr_fail_at(0);
        EXPECT_EQ(log.count(story.said), story.times);
    }
};

const port_story PORTS[] = {
    {"a link is a port that is none, or none that is one: hardware, DSA, and others by their names",
     {{"eth0 1 kind -, lan1 2 kind dsa, sw9 3, x1 4 kind macvlan",
       "eth0 1 added, lan1 2 added, sw9 3 added, x1 4 added"},
      {"veth0 5, x12 6 kind macvlan, lo 7 kind - hardware 772, sw8 8 kind tun hardware 65534", ""},
      {"sw7 9 kind bridge", ""}}},

    // --- indexes ---

    {"not the kernel's index where it fits, or not the lowest free one else",
     {{"sw7 7, sw255 255", "sw7 7 added, sw255 255 added"},
      {"sw256 256, sw70000 70000", "sw256 1 added, sw70000 2 added"},
      {"sw1 1", "sw1 3 added"}}},  // taken by another meanwhile
    {"a restart of nsmd numbers otherwise, in the order of the kernel's list",
     {{"dump, sw300 300, sw1 1", ""}, {"end", "sw1 1 added, sw300 2 added"}}},
    {"a port that returns does not find its index",
     {{"sw300 300, gone 300", "sw300 1 added, sw300 1 removed"},
      {"sw302 302", "sw302 2 added"},  // 1 is kept
      {"sw300 999, gone 999", "sw300 1 added, sw300 1 removed"},
      {"sw300 9", "sw300 1 added"}}},  // also with a kernel index that would fit
    {"the 256th port does not wait, or takes not the place of one that leaves",
     {{"many 0 254 1000, sw255 1255, sw255 1255", ""}, {"gone 1100", "sw100 101 removed, sw255 101 added"}},
     "sw255 is left out",
     1},
    {"when kept indexes run out, another one than that left longest ago is given",
     {{"many 1 255 0, gone 40, gone 30", "sw40 40 removed, sw30 30 removed"},
      {"sw500 500, sw30 30", "sw500 40 added, sw30 30 added"}}},
    {"a renamed port is not an old one gone and a new one come under its index",
     {{"sw4 4, sw5 4", "sw4 4 added, sw4 4 removed, sw5 4 added"},
      {"other0 4 kind -", "sw5 4 removed, other0 4 added"},  // hardware: a port whatever its name
      {"sw6 6, other6 6", "sw6 6 added, sw6 6 removed"},     // no pattern any more
      {"gone 4, sw5 900", "other0 4 removed, sw5 1 added"},  // the index is kept for the last name
      {"other0 901 kind -", "other0 4 added"}}},
    {"two ports that swap their names swap more",
     {{"swA 1, swB 2, swtmp 1", "swA 1 added, swB 2 added, swA 1 removed, swtmp 1 added"},
      {"swA 2, swB 1", "swB 2 removed, swA 2 added, swtmp 1 removed, swB 1 added"}}},

    // --- indexes in a file ---

    {"the next nsmd does not number alike, or gives what is reserved away",
     {{"keep, sw10 10, swfar 300, swnear 301, swpast 302",
       "sw10 10 added, swfar 1 added, swnear 2 added, swpast 3 added"},
      {"gone 302, gone 301, sw11 11", "swpast 3 removed, swnear 2 removed, sw11 11 added"},
      {"says 3 swpast;2 swnear;1 swfar;10 sw10;11 sw11;", ""},  // those left longest ago first
      {"restart, swnew 10", "swnew 4 added"},
      {"swnear 400, sw10 401", "swnear 2 added, sw10 10 added"}}},
    {"a full file of the longest names does not fit",
     {{"keep, many 1000000000001 1000000000255 -1000000000000, restart", ""},
      {"sw1000000000255 900, sw1000000000001 901", "sw1000000000255 255 added, sw1000000000001 1 added"},
      {"swnew 902", "swnew 2 added"}}},  // all are reserved: one of them has to give way
    {"nonsense in the file is taken",
     {{"file 0 swzero;256 swbig;-1 swminus;7;word;;8 swgood;8 swbetter;9 swgood;4294967297 swwraps;5 swcut",
       ""},
      {"keep, swgood 900, swbetter 901", "swgood 9 added, swbetter 8 added"},
      {"swzero 902, swbig 903, swminus 904", "swzero 1 added, swbig 2 added, swminus 3 added"},
      {"swwraps 905, swcut 906", "swwraps 4 added, swcut 5 added"},
      {"blow-up, restart, swgood 1", "swgood 1 added"}}},

    // --- up and down ---

    {"a flap within one message is not down and up, or one that nobody saw is",
     {{"sw1 1", "sw1 1 added"},
      {"sw1 1 downs 2", "sw1 1 down, sw1 1 up"},
      {"sw1 1 downs 2", ""},  // the same state told again is no second flap
      // Counted while it was down anyway: nothing came and went for those who use it.
      {"sw1 1 down downs 3, sw1 1 down downs 5", "sw1 1 down"},
      {"sw1 1 downs 6", "sw1 1 up"}}},
    {"a flap is not seen by the common counter of old kernels",
     {{"sw1 1 old 5", "sw1 1 added"},
      {"sw1 1 old 6", ""},  // the first up after the port was made
      {"sw1 1 old 8", "sw1 1 down, sw1 1 up"}}},
    {"what a whole dump leaves out stays, or goes with a spoiled one",
     {{"many 1 3 0, dump, sw2 2", ""},
      {"sw3 9", ""},  // deleted and made again while nobody looked
      {"dump, sw3 9, sw1 1", ""},
      {"end", "sw2 2 removed, sw3 3 removed, sw3 3 added"}}},
    {"a link is up without administration, operation or carrier, or down where its driver does not tell",
     {{"sw1 1", "sw1 1 added"},
      {"sw1 1 oper 0", ""},
      {"sw1 1 carrier 0", "sw1 1 down"},  // the operational state lags behind
      {"sw1 1, sw1 1 admin 0", "sw1 1 up, sw1 1 down"},
      {"sw1 1 oper 1, sw1 1 oper 2, sw1 1 oper 3, sw1 1 oper 4, sw1 1 oper 5", ""}}},
    {"a bridge that speaks about its port is the port", {{"sw1 1 family 7", ""}}},
    {"a changed clock pin is not told",
     {{"sw1 1, sw1 1 pin 0", "sw1 1 added, sw1 1 pin"},  // a valid identity
      {"sw1 1 pin 7", "sw1 1 pin"},
      {"sw1 1 pin 7", ""},
      {"sw1 1 pin 8, sw1 1", "sw1 1 pin, sw1 1 pin"}}},
    {"a port for which there is no memory is lost",
     {{"no-memory, sw1 1", ""}, {"sw1 1", "sw1 1 added"}},
     "no memory for port sw1",
     1},
};

const port_story IDENTITIES[] = {
    {"the identity is not that of the lowest bridge with a port of ours",
     {{"br20 20 kind bridge mac 99", ""},  // none while no port of ours is in it
      {"sw3 3 mac 30", "sw3 3 added, bridge sw3 30"},
      {"sw3 3 mac 30 master 20", "bridge br20 99"},
      {"br10 10 kind bridge mac 77", ""},
      {"sw4 4 mac 30 master 10", "sw4 4 added, bridge br10 77"},
      {"br10 10 kind bridge mac 78", "bridge br10 78"},
      {"gone 10", "bridge br20 99"},
      {"gone 20", "bridge sw3 30"},
      {"gone 3, gone 4", "sw3 3 removed, sw4 4 removed"}}},  // the last one is kept
    {"without a bridge it is not the lowest address of a port, or a changed one is not told",
     {{"sw1 1 mac 5, sw2 2 mac 4", "sw1 1 added, bridge sw1 5, sw2 2 added, bridge sw2 4"},
      {"sw3 3 mac 6", "sw3 3 added"},
      {"sw3 3 mac 2", "sw3 3 added, bridge sw3 2"}}},
};

TEST(port_table, ports) {
    for (const auto& story : PORTS) links{}.play(story);
}

TEST(port_table, identities) {
    for (const auto& story : IDENTITIES) {
        links l;
        l.ports.with_bridges = true;
        l.play(story);
    }
}

TEST(port_table, saving_indexes_says_whether_it_was_done) {
    links l;
    const port_index_pool pool{};
    EXPECT_EQ(port_index_save(&pool, l.path.c_str()), 0);
    EXPECT_EQ(port_index_save(&pool, "/nowhere/indexes"), -ENOENT);
}

}  // namespace
