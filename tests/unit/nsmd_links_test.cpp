// Links as the kernel tells of them: which are ports, which index they get, what is told of their changes,
// and a kernel that loses messages, refuses, interrupts, and holds news back.
#include "nsmd/links/watch.h"
#include "nsmd_support.h"
#include "unit/failing_disk.h"

namespace {

struct story {
    const char* fault;  // what it would be
    std::vector<step> steps;
    int dumps = 1;
    const char* said = "port";
    long times = 0;
};

struct watched {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    recorded_table ports{{"sw*", "x?"}};
    link_poll poll{50, 100};
    link_watch* watcher = nullptr;
    const std::string path = "/tmp/nsmd-indexes-" + std::to_string(getpid());

    watched() { kernel.attach(&loop); }
    ~watched() {
        link_watch_stop(watcher);
        unlink(path.c_str());
    }
    void start() {
        watcher = link_watch_start(&loop.ctx, ports.table, kernel.edge(), poll);
        ASSERT_NE(watcher, nullptr);
        EXPECT_FALSE(link_watch_ready(watcher));
    }
    void restart() {
        link_watch_stop(watcher);
        kernel.links.clear();
        kernel.dumps = 0;
        ports.restart();
        port_table_keep_indexes(ports.table, path.c_str());
        start();
        loop.run(1);
    }
    // Ports from the first number to the last, and what to add to get the kernel's index; what is told is
    // dropped.
    void many(std::istream& words) {
        long long number, last, offset;
        for (words >> number >> last >> offset; number <= last; ++number)
            kernel.act("sw" + std::to_string(number) + " " + std::to_string(number + offset));
        loop.run(1);
        ports.take();
    }
    void act(const std::string& text) {
        std::istringstream words(text);
        std::string verb;
        words >> verb >> std::ws;
        if (verb == "many") return many(words);
        if (verb == "restart") return restart();
        if (verb != "file" && verb != "says") return kernel.act(text);
        // The file's lines end with semicolons here.
        std::string lines(std::istreambuf_iterator<char>(words), {});
        std::replace(lines.begin(), lines.end(), ';', '\n');
        if (verb == "file") std::ofstream(path) << lines;
        loop.run(1);
        EXPECT_EQ(content_of(path), lines);
    }
    // Links that are there quietly at first are so before the watcher starts.
    void play(const std::vector<step>& steps) {
        if (!watcher && !std::string(steps[0].happens).starts_with("quiet")) start(), loop.run(1);
        for (const step& s : steps) {
            for (const auto& one : parts_of(s.happens)) act(one);
            if (!watcher) start();
            loop.run(s.ms);
            EXPECT_EQ(ports.take(), s.told) << s.happens;
        }
        EXPECT_TRUE(link_watch_ready(watcher));
    }
    int questions_in(unsigned ms) {
        const int before = kernel.questions;
        loop.run(ms);
        return kernel.questions - before;
    }
};

const story PORTS[] = {
    {"a link is a port that is none, or none that is one: hardware, DSA, and others by their names",
     {{"eth0 1 kind -, lan1 2 kind dsa, sw9 3, x1 4 kind macvlan", 1,
       "eth0 1 added, lan1 2 added, sw9 3 added, x1 4 added"},
      {"veth0 5, x12 6 kind macvlan, lo 7 kind - hardware 772, sw8 8 kind tun hardware 65534", 1, ""},
      {"sw7 9 kind bridge", 1, ""}}},

    // --- indexes ---

    {"not the kernel's index where it fits, or not the lowest free one else",
     {{"sw7 7, sw255 255", 1, "sw7 7 added, sw255 255 added"},
      {"sw256 256, sw70000 70000", 1, "sw256 1 added, sw70000 2 added"},
      {"sw1 1", 1, "sw1 3 added"}}},  // taken by another meanwhile
    {"in a dump the kernel's indexes do not come first",
     {{"sw1 1, sw2 2, sw3 3, gone 3", 1, "sw1 1 added, sw2 2 added, sw3 3 added, sw3 3 removed"},
      {"quiet swn 3, quiet sw4 4, overrun", 1, "sw4 4 added, swn 5 added"}},
     2},
    {"a port that returns does not find its index",
     {{"sw300 300, gone 300", 1, "sw300 1 added, sw300 1 removed"},
      {"sw302 302", 1, "sw302 2 added"},  // 1 is kept
      {"sw300 999, gone 999", 1, "sw300 1 added, sw300 1 removed"},
      {"sw300 9", 1, "sw300 1 added"}}},  // also with a kernel index that would fit
    {"the 256th port does not wait, or takes not the place of one that leaves",
     {{"many 0 254 1000, sw255 1255, sw255 1255", 1, ""},
      {"gone 1100", 1, "sw100 101 removed, sw255 101 added"}},
     1,
     "sw255 is left out",
     1},
    {"when kept indexes run out, another one than that left longest ago is given",
     {{"many 1 255 0, gone 40, gone 30", 1, "sw40 40 removed, sw30 30 removed"},
      {"sw500 500, sw30 30", 1, "sw500 40 added, sw30 30 added"}}},
    {"a renamed port is not an old one gone and a new one come under its index",
     {{"sw4 4, sw5 4", 1, "sw4 4 added, sw4 4 removed, sw5 4 added"},
      {"other0 4 kind -", 1, "sw5 4 removed, other0 4 added"},  // hardware: a port whatever its name
      {"sw6 6, other6 6", 1, "sw6 6 added, sw6 6 removed"},     // no pattern any more
      {"gone 4, sw5 900", 1, "other0 4 removed, sw5 1 added"},  // the index is kept for the last name
      {"other0 901 kind -", 1, "other0 4 added"}}},
    {"two ports that swap their names swap more",
     {{"swA 1, swB 2, swtmp 1", 1, "swA 1 added, swB 2 added, swA 1 removed, swtmp 1 added"},
      {"swA 2, swB 1", 1, "swB 2 removed, swA 2 added, swtmp 1 removed, swB 1 added"}}},

    // --- indexes in a file ---

    {"the next nsmd does not number alike, or gives what is reserved away",
     {{"restart, sw10 10, swfar 300, swnear 301, swpast 302", 1,
       "sw10 10 added, swfar 1 added, swnear 2 added, swpast 3 added"},
      {"gone 302, gone 301, sw11 11", 1, "swpast 3 removed, swnear 2 removed, sw11 11 added"},
      {"says 3 swpast;2 swnear;1 swfar;10 sw10;11 sw11;", 1, ""},  // those left longest ago first
      {"restart, swnew 10", 1, "swnew 4 added"},
      {"swnear 400, sw10 401", 1, "swnear 2 added, sw10 10 added"}}},
    {"a full file of the longest names does not fit",
     {{"restart, many 1000000000001 1000000000255 -1000000000000, restart", 1, ""},
      {"sw1000000000255 900, sw1000000000001 901", 1, "sw1000000000255 255 added, sw1000000000001 1 added"},
      {"swnew 902", 1, "swnew 2 added"}}},  // all are reserved: one of them has to give way
    {"nonsense in the file is taken",
     {{"file 0 swzero;256 swbig;-1 swminus;7;word;;8 swgood;8 swbetter;9 swgood;4294967297 swwraps;5 swcut",
       1, ""},
      {"restart, swgood 900, swbetter 901", 1, "swgood 9 added, swbetter 8 added"},
      {"swzero 902, swbig 903, swminus 904", 1, "swzero 1 added, swbig 2 added, swminus 3 added"},
      {"swwraps 905, swcut 906", 1, "swwraps 4 added, swcut 5 added"}}},

    // --- up and down ---

    {"a flap within one message is not down and up, or one that nobody saw is",
     {{"sw1 1", 1, "sw1 1 added"},
      {"sw1 1 downs 2", 1, "sw1 1 down, sw1 1 up"},
      {"sw1 1 downs 2", 1, ""},  // the same state told again is no second flap
      // Counted while it was down anyway: nothing came and went for those who use it.
      {"sw1 1 down downs 3, sw1 1 down downs 5", 1, "sw1 1 down"},
      {"sw1 1 downs 6", 1, "sw1 1 up"}}},
    {"a flap is not seen by the common counter of old kernels",
     {{"sw1 1 old 5", 1, "sw1 1 added"},
      {"sw1 1 old 6", 1, ""},  // the first up after the port was made
      {"sw1 1 old 8", 1, "sw1 1 down, sw1 1 up"}}},
    {"a link that was deleted and made again while nobody looked is the old one",
     {{"many 1 3 0, lost 2, lost 3, quiet sw3 9, overrun", 1, "sw2 2 removed, sw3 3 removed, sw3 3 added"}},
     2},
    {"a link is up without administration, operation or carrier, or down where its driver does not tell",
     {{"sw1 1", 1, "sw1 1 added"},
      {"sw1 1 oper 0", 1, ""},
      {"sw1 1 carrier 0", 1, "sw1 1 down"},  // the operational state lags behind
      {"sw1 1, sw1 1 admin 0", 1, "sw1 1 up, sw1 1 down"},
      {"sw1 1 oper 1, sw1 1 oper 2, sw1 1 oper 3, sw1 1 oper 4, sw1 1 oper 5", 1, ""}}},
    {"a bridge that speaks about its port is the port", {{"sw1 1 family 7", 1, ""}}},
    {"a changed clock pin is not told",
     {{"sw1 1, sw1 1 pin 0", 1, "sw1 1 added, sw1 1 pin"},  // a valid identity
      {"sw1 1 pin 7", 1, "sw1 1 pin"},
      {"sw1 1 pin 7", 1, ""},
      {"sw1 1 pin 8, sw1 1", 1, "sw1 1 pin, sw1 1 pin"}}},
};

const story IDENTITIES[] = {
    {"the identity is not that of the lowest bridge with a port of ours",
     {{"br20 20 kind bridge mac 99", 1, ""},  // none while no port of ours is in it
      {"sw3 3 mac 30", 1, "sw3 3 added, bridge sw3 30"},
      {"sw3 3 mac 30 master 20", 1, "bridge br20 99"},
      {"br10 10 kind bridge mac 77", 1, ""},
      {"sw4 4 mac 30 master 10", 1, "sw4 4 added, bridge br10 77"},
      {"br10 10 kind bridge mac 78", 1, "bridge br10 78"},
      {"gone 10", 1, "bridge br20 99"},
      {"gone 20", 1, "bridge sw3 30"},
      {"gone 3, gone 4", 1, "sw3 3 removed, sw4 4 removed"}}},  // the last one is kept
    {"without a bridge it is not the lowest address of a port, or a changed one is not told",
     {{"sw1 1 mac 5, sw2 2 mac 4", 1, "sw1 1 added, bridge sw1 5, sw2 2 added, bridge sw2 4"},
      {"sw3 3 mac 6", 1, "sw3 3 added"},
      {"sw3 3 mac 2", 1, "sw3 3 added, bridge sw3 2"}}},
};

const story LOSSES[] = {
    {"it does not begin with a dump, or does not follow the notifications",
     {{"quiet sw1 1, quiet sw2 2 down", 1, "sw1 1 added, sw2 2 added"},
      {"sw2 2, sw3 3", 1, "sw2 2 up, sw3 3 added"},
      {"gone 1", 1, "sw1 1 removed"}},
     1},
    {"lost messages lead to no dump, or something is lost",
     {{"quiet sw1 1, quiet sw2 2, quiet sw3 3", 1, "sw1 1 added, sw2 2 added, sw3 3 added"},
      {"lost 1, quiet sw2 2 down, quiet sw4 4, quiet sw3 3 downs 1, overrun, "
       "old sw2 2, "  // old news that was queued before the loss
       "old sw1 1",   // and of a link whose end was among what was lost
       1, "sw2 2 down, sw3 3 down, sw3 3 up, sw1 1 removed, sw4 4 added"}},
     2},
    {"a dump that was interrupted or overrun is believed",
     {{"quiet sw1 1, quiet sw2 2, interrupted, during lost 1", 1, "sw2 2 added"},
      {"cut-off, during overrun, during quiet sw3 3", 1, "sw3 3 added"}},  // as good as lost
     4},
    {"refused and unanswered dumps are not repeated, or at once",
     {{"quiet sw1 1, refused", 20, ""},
      {"", 100, "sw1 1 added"},
      {"swallowed, overrun", 3000, ""},
      {"sw2 2", 1, "sw2 2 added"}},
     4},
    {"a message with few attributes is believed, or no question",
     {{"quiet sw1 1", 1, "sw1 1 added"}, {"quiet sw1 1 down, old sw1 1 complete 0", 1, "sw1 1 down"}},
     1},
};

TEST(links, stories) {
    for (const auto& stories :
         {std::span<const story>(PORTS), std::span<const story>(IDENTITIES), std::span<const story>(LOSSES)})
        for (const story& s : stories) {
            SCOPED_TRACE(s.fault);
            watched w;
            w.ports.with_bridges = stories.data() == IDENTITIES;
            w.play(s.steps);
            EXPECT_EQ(w.kernel.dumps, s.dumps);
            EXPECT_EQ(w.log.count(s.said), s.times);
        }
}

// The disk fails at each call that saves them, in turn.
TEST(links, a_failing_disk_leaves_the_old_indexes_or_the_new_ones) {
    using failing_disk::fault;
    for (const fault kind : {fault::once, fault::cut, fault::full}) {
        int at = 0;
        for (bool struck = true; struck && !HasFailure();) {
            watched w;
            w.play({{"restart, sw1 1", 1, "sw1 1 added"}});
            failing_disk::arm(w.path, kind, ++at);
            w.play({{"sw2 2", 1, "sw2 2 added"}});
            struck = failing_disk::disarm();
            const bool saved = content_of(w.path) == "1 sw1\n2 sw2\n";
            EXPECT_TRUE(saved || content_of(w.path) == "1 sw1\n");
            EXPECT_TRUE(saved || w.log.count(" can't write ") == 1);
            w.play({{"sw3 3, says 1 sw1;2 sw2;3 sw3;", 1, "sw3 3 added"}});
        }
        EXPECT_GT(at, kind == fault::full ? 2 : 4) << "so many calls there are";
    }
}

// The kernel says nothing about the lost carrier for a second. Any other message is the hint to ask.
TEST(links, a_late_down_message_is_overtaken_by_asking) {
    watched w;
    w.poll = {50, 0};
    w.play({{"quiet sw1 1, quiet sw2 2 down", 2000, "sw1 1 added, sw2 2 added"}});
    EXPECT_GT(w.kernel.questions, 10);  // the window after the start
    EXPECT_EQ(w.questions_in(5000), 0);
    w.play({{"sw2 2", 10, "sw2 2 up"},
            {"quiet sw1 1 down", 60, "sw1 1 down"},
            {"old sw1 1 down", 10, ""}});  // the kernel's own word, at last
}

TEST(links, without_any_hint_a_lost_carrier_is_known_within_the_slow_interval) {
    watched w;
    w.play({{"quiet sw1 1", 5000, "sw1 1 added"}, {"quiet sw1 1 down", 101, "sw1 1 down"}});
    EXPECT_EQ(w.questions_in(5000), 0);  // a port that is down is not asked for: its up comes at once
    w.play({{"many 1 255 0", 3000, ""}});
    const int asked = w.questions_in(10000);
    EXPECT_GT(asked, 255 * 5);
    EXPECT_LT(asked, 255 * 7);                                   // each of many less often
    w.play({{"quiet sw255 255 down", 2000, "sw255 255 down"}});  // but no one never
}

// One link flaps among hundreds: its own loss and the source's are known at once, the others' after a while,
// and the questions are no more than for a few ports.
TEST(links, a_flapping_link_makes_nobody_ask_for_all_the_others_each_time) {
    watched w;
    w.play({{"many 1 255 0", 3000, ""}});
    link_watch_prefer(w.watcher, 200);
    const int before = w.kernel.questions;
    for (int i = 1; i <= 10; ++i) w.play({{"sw9 9 down", 50, "sw9 9 down"}, {"sw9 9", 50, "sw9 9 up"}});
    EXPECT_LT(w.kernel.questions - before, 20 * 26);
    w.play({{"quiet sw9 9 down, quiet sw200 200 down", 51, "sw9 9 down, sw200 200 down"},
            {"sw9 9, quiet sw180 180 down", 900, "sw9 9 up, sw180 180 down"}});
}

TEST(links, a_kernel_without_the_socket_is_said_and_no_start) {
    watched w;
    netlink_edge no_socket = w.kernel.edge(), no_group = w.kernel.edge();
    no_socket.open = [](void*, int) { return -EPERM; };
    no_group.join = [](void*, int, unsigned) { return -EPERM; };
    EXPECT_EQ(link_watch_start(&w.loop.ctx, w.ports.table, no_socket, {}), nullptr);
    EXPECT_EQ(link_watch_start(&w.loop.ctx, w.ports.table, no_group, {}), nullptr);
    EXPECT_EQ(w.log.count("can't watch the kernel's links"), 2);
}

TEST(links, a_request_too_long_is_marked_and_stays_within_its_buffer) {
    nl_builder b;
    nl_begin(&b, 1, 0, 1);
    for (int i = 0; i < 200; ++i) nl_put_u32(&b, 1, 7);
    EXPECT_TRUE(b.overflow);
    EXPECT_LE(b.length, sizeof b.data);
}

}  // namespace
