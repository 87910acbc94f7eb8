// The kernel's clock interface: nsmd as a whole against a kernel made of messages that behaves like each kind
// of driver. What is checked is the exact order of the requests, and what the daemon is told.
#include <linux/genetlink.h>

#include <map>

#include "nsmd/dpll_kernel.h"
#include "nsmd/dpll_message.h"
#include "nsmd/nsm_server.h"
#include "nsmd/nsmd.h"
#include "nsmd_support.h"

namespace {

constexpr std::uint16_t FAMILY = 31;
constexpr std::uint32_t GROUP = 9;

enum class driver {
    direct_manual,    // pins on the device; connecting one does not release others; released: runs free
    forces_holdover,  // pins on the device; connecting switches over; releasing any pin forces holdover
    mux_automatic,    // port pins behind MUX pins; a state that is so already is an error
    automatic,        // pins on the device, ranked; "connected" can't be asked for
};

struct fake_pin {
    std::uint32_t capabilities = 4;
    std::map<std::uint32_t, std::uint32_t> devices;  // device to state
    std::map<std::uint32_t, std::uint32_t> muxes;    // pin to state
    std::uint32_t prio = 0;
    bool signal = true;
    std::string label;
    bool output = false;
};

// Requests are recorded as text: "dump devices", "get pin 3", "pin 3 device 1 state connected".
struct fake_dpll {
    fake_kernel& kernel;
    driver kind;
    texts log;
    std::map<std::uint32_t, fake_pin> pins;
    bool has_family = true, has_device = true, tells_operstate = false, notifies = true;
    std::uint32_t type = 2, status = 1, mode = 1;
    int refuse_set = 0;                       // errno for every setting
    std::map<std::uint32_t, int> refuse_pin;  // errno by pin
    int busy = 0;                             // so many settings are refused with EBUSY
    int disturb_dumps = 0;
    std::uint32_t tracked = 0;

    fake_dpll(fake_kernel& k, driver d) : kernel(k), kind(d) {
        mode = d == driver::direct_manual || d == driver::forces_holdover ? 1 : 2;
        k.generic_send = [this](const_octets m) { return request(m); };
    }
    void say(nl_builder& b, std::uint32_t sequence) {
        const std::uint32_t port = fake_kernel::PORT;
        std::memcpy(b.data + 8, &sequence, 4);
        std::memcpy(b.data + 12, &port, 4);
        kernel.generic_queue.push_back({0, octets_of(b)});
    }
    void acknowledge(std::uint32_t sequence, int error) {
        kernel.generic_queue.push_back(
            {0, control_octets(NLMSG_ERROR, 0, sequence, fake_kernel::PORT, -error)});
    }
    static void begin(nl_builder* b, std::uint8_t command, std::uint16_t flags = 0) {
        nl_begin(b, FAMILY, flags, 0);
        const std::uint8_t header[4] = {command, 1, 0, 0};
        nl_put_raw(b, header, sizeof header);
    }
    void put_device(nl_builder* b) const {
        const std::uint64_t clock = 0x0011223344556677ULL;
        nl_put_u32(b, DPLL_A_ID, 1);
        nl_put_text(b, DPLL_A_MODULE_NAME, "chip");
        nl_put(b, 3, nullptr, 0);  // padding before 64 bits
        nl_put(b, DPLL_A_CLOCK_ID, &clock, sizeof clock);
        nl_put_u32(b, DPLL_A_MODE, mode);
        nl_put_u32(b, DPLL_A_LOCK_STATUS, status);
        nl_put_u32(b, DPLL_A_TYPE, type);
        nl_put_u32(b, 14, 1);  // an attribute of the future
    }
    void put_pin(nl_builder* b, std::uint32_t id) const {
        const fake_pin& p = pins.at(id);
        nl_put_u32(b, DPLL_PIN_A_ID, id);
        nl_put_text(b, DPLL_PIN_A_BOARD_LABEL, p.label);
        nl_put_u32(b, DPLL_PIN_A_CAPABILITIES, p.capabilities);
        const auto parent = [&](std::uint16_t what, std::uint32_t to, std::uint32_t state) {
            const std::size_t nest = nl_nest_begin(b, what);
            nl_put_u32(b, DPLL_PIN_A_PARENT_ID, to);
            if (what == DPLL_PIN_A_PARENT_DEVICE) {
                nl_put_u32(b, DPLL_PIN_A_DIRECTION, p.output ? 2 : 1);
                if (p.capabilities & 2) nl_put_u32(b, DPLL_PIN_A_PRIO, p.prio);
                if (tells_operstate) nl_put_u32(b, DPLL_PIN_A_OPERSTATE, tracked == id ? 1 : 2);
            }
            nl_put_u32(b, DPLL_PIN_A_STATE, shown(id, state));
            nl_nest_end(b, nest);
        };
        for (const auto& [to, state] : p.devices) parent(DPLL_PIN_A_PARENT_DEVICE, to, state);
        for (const auto& [to, state] : p.muxes) parent(DPLL_PIN_A_PARENT_PIN, to, state);
    }
    // Automatic devices show the pin in use as connected, unless they have a place of its own for that.
    std::uint32_t shown(std::uint32_t id, std::uint32_t state) const {
        return mode == 2 && !tells_operstate && tracked == id && state == PIN_SELECTABLE ? PIN_CONNECTED
                                                                                         : state;
    }
    void notify_pin(std::uint32_t id, std::uint8_t command = DPLL_CMD_PIN_CHANGE_NTF) {
        if (!notifies) return;
        nl_builder b;
        begin(&b, command);
        put_pin(&b, id);
        say(b, 0);
    }
    void notify_device(std::uint8_t command = DPLL_CMD_DEVICE_CHANGE_NTF) {
        if (!notifies) return;
        nl_builder b;
        begin(&b, command);
        put_device(&b);
        say(b, 0);
    }
    bool carries_signal(std::uint32_t id) const {
        const fake_pin& p = pins.at(id);
        if (!p.muxes.empty()) return p.signal;
        bool is_mux = false, carries = false;
        for (const auto& [child_id, child] : pins) {
            const auto at = child.muxes.find(id);
            if (at == child.muxes.end()) continue;
            is_mux = true;
            carries |= at->second == PIN_CONNECTED && child.signal;
        }
        return is_mux ? carries : p.signal;
    }
    // The device looks at its inputs.
    void work() {
        std::uint32_t best = 0;
        for (const auto& [id, p] : pins) {
            const auto at = p.devices.find(1);
            if (at == p.devices.end() || p.output || !carries_signal(id)) continue;
            if (mode == 1 ? at->second != PIN_CONNECTED : at->second == PIN_DISCONNECTED) continue;
            if (mode == 1 && tracked == id) {
                best = id;
                break;
            }
            if (!best || p.prio < pins.at(best).prio) best = id;
        }
        const bool was = status == DPLL_STATUS_LOCKED_HO_ACQ || status == DPLL_STATUS_HOLDOVER;
        std::uint32_t now = was ? DPLL_STATUS_HOLDOVER : DPLL_STATUS_UNLOCKED;
        if (kind == driver::direct_manual && tracked && !best) now = DPLL_STATUS_UNLOCKED;
        if (best) now = DPLL_STATUS_LOCKED_HO_ACQ;
        const std::uint32_t before = std::exchange(tracked, best);
        if (before != best && before && mode == 2) notify_pin(before);
        if (before != best && best && mode == 2) notify_pin(best);
        if (std::exchange(status, now) != now) notify_device();
    }
    int set_state(std::uint32_t id, bool on_mux, std::uint32_t parent, std::uint32_t state) {
        auto& places = on_mux ? pins[id].muxes : pins[id].devices;
        if (!places.count(parent)) return EINVAL;
        if (!(pins[id].capabilities & 4)) return EOPNOTSUPP;
        std::uint32_t& now = places[parent];
        if (!on_mux && (mode == 1 ? state == PIN_SELECTABLE : state == PIN_CONNECTED)) return EINVAL;
        if (kind == driver::mux_automatic && now == state) return EINVAL;
        if (on_mux && state == PIN_CONNECTED)  // one child only
            for (auto& [other, p] : pins)
                if (p.muxes.count(parent)) p.muxes[parent] = PIN_DISCONNECTED;
        if (kind == driver::forces_holdover)
            for (auto& [other, p] : pins)
                if (p.devices.count(1)) p.devices[1] = PIN_DISCONNECTED;
        now = state;
        if (kind == driver::direct_manual && state == PIN_CONNECTED) tracked = id;
        return 0;
    }
    int set_prio(std::uint32_t id, std::uint32_t prio) {
        if (!(pins[id].capabilities & 2)) return EOPNOTSUPP;
        if (prio > 14) return EINVAL;
        pins[id].prio = prio;
        return 0;
    }
    int set_pin(const_octets attributes) {
        std::uint32_t id = 0, parent = 0;
        std::string words;
        int result = EINVAL;
        nl_attr a, n;
        while (nl_next_attr(&attributes, &a)) {
            if (a.type == DPLL_PIN_A_ID) id = nl_u32(a.value);
            if (a.type != DPLL_PIN_A_PARENT_DEVICE && a.type != DPLL_PIN_A_PARENT_PIN) continue;
            const bool on_mux = a.type == DPLL_PIN_A_PARENT_PIN;
            const_octets nest = a.value;
            while (nl_next_attr(&nest, &n)) {
                static const char* const states[] = {"?", "connected", "disconnected", "selectable"};
                const std::uint32_t v = nl_u32(n.value);
                if (n.type == DPLL_PIN_A_PARENT_ID) parent = v;
                const bool refused = refuse_set || refuse_pin.count(id) || busy > 0;
                if (n.type == DPLL_PIN_A_STATE) {
                    words = std::string(" state ") + states[v];
                    result = refused ? 0 : set_state(id, on_mux, parent, v);
                }
                if (n.type == DPLL_PIN_A_PRIO) {
                    words = " prio " + std::to_string(v);
                    result = refused ? 0 : set_prio(id, v);
                }
            }
            words = (on_mux ? " mux " : " device ") + std::to_string(parent) + words;
        }
        log.push_back("pin " + std::to_string(id) + words);
        if (busy > 0) {
            --busy;
            return EBUSY;
        }
        if (refuse_set) return refuse_set;
        if (refuse_pin.count(id)) return refuse_pin[id];
        if (result == 0) {
            notify_pin(id);
            work();
        }
        return result;
    }
    int request(const_octets message) {
        nl_message m;
        EXPECT_TRUE(nl_next_message(&message, &m));
        if (m.type == GENL_ID_CTRL) {
            find_family(m);
            return 0;
        }
        EXPECT_EQ(m.type, FAMILY);
        const std::uint8_t command = m.body[0];
        const_octets attributes = m.body.subspan(4);
        if ((m.flags & NLM_F_DUMP) == NLM_F_DUMP)
            dump(command, m.sequence);
        else if (command == DPLL_CMD_PIN_SET)
            acknowledge(m.sequence, set_pin(attributes));
        else
            get(command, attributes, m.sequence);
        return 0;
    }
    void find_family(const nl_message& m) {
        const_octets rest = m.body.subspan(4);
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&rest, &a));
        if (!has_family || nl_text(a.value) != "dpll") return acknowledge(m.sequence, ENOENT);
        nl_builder b;
        nl_begin(&b, GENL_ID_CTRL, 0, 0);
        const std::uint8_t header[4] = {CTRL_CMD_NEWFAMILY, 2, 0, 0};
        nl_put_raw(&b, header, sizeof header);
        nl_put_text(&b, CTRL_ATTR_FAMILY_NAME, "dpll");
        const std::uint16_t id = FAMILY;
        nl_put(&b, CTRL_ATTR_FAMILY_ID, &id, sizeof id);
        const std::size_t groups = nl_nest_begin(&b, CTRL_ATTR_MCAST_GROUPS);
        const std::size_t one = nl_nest_begin(&b, 1);
        nl_put_u32(&b, CTRL_ATTR_MCAST_GRP_ID, GROUP);
        nl_put_text(&b, CTRL_ATTR_MCAST_GRP_NAME, "monitor");
        nl_nest_end(&b, one);
        nl_nest_end(&b, groups);
        say(b, m.sequence);
        acknowledge(m.sequence, 0);
    }
    void dump(std::uint8_t command, std::uint32_t sequence) {
        const bool devices = command == DPLL_CMD_DEVICE_GET;
        log.push_back(devices ? "dump devices" : "dump pins");
        const std::uint16_t flags = disturb_dumps > 0 ? NLM_F_MULTI | NLM_F_DUMP_INTR : NLM_F_MULTI;
        if (disturb_dumps > 0) --disturb_dumps;
        nl_builder b;
        if (devices && has_device) {
            begin(&b, DPLL_CMD_DEVICE_GET, flags);
            put_device(&b);
            say(b, sequence);
        }
        for (const auto& [id, p] : pins) {
            if (devices) break;
            begin(&b, DPLL_CMD_PIN_GET, flags);
            put_pin(&b, id);
            say(b, sequence);
        }
        kernel.generic_queue.push_back(
            {0, control_octets(NLMSG_DONE, flags, sequence, fake_kernel::PORT, 0)});
    }
    void get(std::uint8_t command, const_octets attributes, std::uint32_t sequence) {
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        const std::uint32_t id = nl_u32(a.value);
        nl_builder b;
        begin(&b, command);
        if (command == DPLL_CMD_DEVICE_GET) {
            if (!has_device) return acknowledge(sequence, ENODEV);
            put_device(&b);
        } else {
            log.push_back("get pin " + std::to_string(id));
            if (!pins.count(id)) return acknowledge(sequence, ENODEV);
            put_pin(&b, id);
        }
        say(b, sequence);
        acknowledge(sequence, 0);
    }
    texts take() { return std::exchange(log, {}); }
    // The settings alone.
    texts take_settings() {
        texts all = take(), out;
        for (const auto& l : all)
            if (l.compare(0, 4, "pin ") == 0) out.push_back(l);
        return out;
    }
};

struct clock_test : testing::Test {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    nsmd_options options{};
    nsmd* n = nullptr;
    nsm_test_client c;

    void SetUp() override {
        kernel.attach(&loop);
        kernel.links = {port(1, 11), port(2, 12), port(3, -1)};
        options.dpll = dpll_kind::kernel;
        options.grace_s = 10;
        options.poll = {0, 0};
        options.kernel.prio_other = 14;
        options.source_codes[0] = {1, 1};
        options.source_codes[1] = {2, 2};
        options.source_code_count = 2;
    }
    void TearDown() override { nsmd_stop(n); }
    static fake_link port(int index, int pin) {
        fake_link l;
        l.index = index;
        l.name = "eth" + std::to_string(index);
        l.pin = pin;
        return l;
    }
    void start(fake_dpll* d) {
        n = nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000});
        ASSERT_NE(n, nullptr);
        loop.run(1);
        const int fd = c.make_pair();
        loop.descriptors.push_back(fd);
        ASSERT_NE(nsm_server_adopt(nsmd_server(n), fd), nullptr);
        c.hello();
        loop.run(1);
        (void)c.take_all();
        d->take();
    }
    void ask(std::uint16_t type, std::vector<std::uint32_t> words) {
        c.say(type, words);
        loop.run(30);
    }
    void select(std::uint32_t ifindex) {
        c.say(206, {1});
        ask(209, {ifindex, 0});
    }
    static void direct_pins(fake_dpll* d, std::uint32_t capabilities = 4) {
        for (const std::uint32_t id : {11U, 12U}) {
            d->pins[id].capabilities = capabilities;
            d->pins[id].devices[1] = PIN_DISCONNECTED;
            d->pins[id].prio = 5;
        }
    }
    static void mux_pins(fake_dpll* d) {
        for (const std::uint32_t mux : {21U, 22U}) {
            d->pins[mux].capabilities = 6;
            d->pins[mux].devices[1] = PIN_SELECTABLE;
            d->pins[mux].prio = 5;
        }
        for (const std::uint32_t id : {11U, 12U})
            d->pins[id].muxes = {{21, PIN_DISCONNECTED}, {22, PIN_DISCONNECTED}};
    }
};

// --- one driver behaviour after the other: select, switch, lose, holdover, return ---

TEST_F(clock_test, direct_and_manual) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    start(&d);
    EXPECT_EQ(kernel.generic_groups, std::vector<unsigned>{GROUP});
    select(1);
    EXPECT_EQ(d.take(), (texts{"pin 11 device 1 state connected", "get pin 11", "get pin 11"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    select(2);  // the new one first, then the old one, which is still connected
    EXPECT_EQ(d.take(), (texts{"pin 12 device 1 state connected", "get pin 12", "get pin 11",
                               "pin 11 device 1 state disconnected", "get pin 11", "get pin 12"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
    d.pins[12].signal = false;  // lost: the hardware says so by itself
    d.work();
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"clock 2 0"}));  // this kind runs free
    EXPECT_TRUE(d.take().empty());
    ask(208, {0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 state disconnected"}));
    d.pins[12].signal = true;
    ask(208, {1});
    ask(209, {2, 0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 state connected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
}

TEST_F(clock_test, manual_that_enters_holdover_when_a_pin_is_released) {
    fake_dpll d(kernel, driver::forces_holdover);
    direct_pins(&d);
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    select(2);  // the driver switched over: a release would force it into holdover
    EXPECT_EQ(d.take(), (texts{"pin 12 device 1 state connected", "get pin 12", "get pin 11", "get pin 12"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
    d.pins[12].signal = false;
    d.work();
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    ask(208, {0});
    EXPECT_EQ(d.take(), (texts{"get pin 12", "pin 12 device 1 state disconnected", "get pin 12"}));
    d.pins[12].signal = true;
    d.work();
    loop.run(1);
    EXPECT_TRUE(c.take_all().empty());  // in holdover as asked
    c.say(208, {1});
    ask(209, {2, 0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 state connected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
}

TEST_F(clock_test, behind_a_mux_and_automatic) {
    fake_dpll d(kernel, driver::mux_automatic);
    mux_pins(&d);
    start(&d);
    select(1);
    EXPECT_EQ(d.take(), (texts{"pin 11 mux 21 state connected", "get pin 11", "pin 21 device 1 prio 0",
                               "get pin 21", "get pin 11"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    select(2);  // by the other MUX, so that the old source stays until the new one is there
    EXPECT_EQ(d.take(),
              (texts{"pin 12 mux 22 state connected", "get pin 12", "pin 22 device 1 prio 0", "get pin 22",
                     "get pin 11", "pin 11 mux 21 state disconnected", "get pin 11", "get pin 12"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
    d.pins[12].signal = false;
    d.work();
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    ask(208, {0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 12 mux 22 state disconnected"}));
    d.pins[12].signal = true;
    c.say(208, {1});
    ask(209, {2, 0});
    EXPECT_EQ(d.take_settings().size(), 1U);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
    EXPECT_EQ(log.count("can't"), 0);
}

TEST_F(clock_test, with_a_single_mux_the_kernel_changes_the_child) {
    fake_dpll d(kernel, driver::mux_automatic);
    mux_pins(&d);
    d.pins.erase(22);
    for (const std::uint32_t id : {11U, 12U}) d.pins[id].muxes.erase(22);
    start(&d);
    select(1);
    d.take();
    select(2);
    EXPECT_EQ(d.take(), (texts{"pin 12 mux 21 state connected", "get pin 12", "get pin 11", "get pin 12"}));
    EXPECT_EQ(c.take_all().back(), "clock 4 2");
}

TEST_F(clock_test, direct_and_automatic) {
    for (const bool operstate : {false, true}) {
        fake_dpll d(kernel, driver::automatic);
        d.tells_operstate = operstate;
        direct_pins(&d, 6);
        start(&d);
        select(1);
        EXPECT_EQ(d.take(), (texts{"pin 11 device 1 prio 0", "get pin 11", "pin 11 device 1 state selectable",
                                   "get pin 11", "get pin 11"}));
        EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
        select(2);
        EXPECT_EQ(d.take(), (texts{"pin 12 device 1 prio 0", "get pin 12", "pin 12 device 1 state selectable",
                                   "get pin 12", "get pin 11", "pin 11 device 1 state disconnected",
                                   "get pin 11", "get pin 12"}));
        EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
        d.pins[12].signal = false;
        d.work();
        loop.run(1);
        EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
        ask(208, {0});
        EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 state disconnected"}));
        d.pins[12].signal = true;
        c.say(208, {1});
        ask(209, {2, 0});
        EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 state selectable"}));
        EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
        nsmd_stop(std::exchange(n, nullptr));
        c.hang_up();
        c.sequence = c.expected = 0;
    }
}

// --- the rest of the requests ---

TEST_F(clock_test, external_inputs_are_pins_named_in_the_configuration) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 6);
    d.pins[30] = d.pins[11];
    d.pins[30].label = "BITS-A";
    options.kernel.bits[0] = "BITS-A";
    start(&d);
    select(1);
    d.take();
    (void)c.take_all();
    ask(207, {1});
    EXPECT_EQ(d.take_settings(), (texts{"pin 30 device 1 prio 0", "pin 30 device 1 state selectable",
                                        "pin 11 device 1 state disconnected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 8"}));
    ask(207, {2});  // no pin is named for it
    EXPECT_EQ(d.take_settings(), (texts{"pin 30 device 1 state disconnected"}));
    EXPECT_EQ(log.count("no pin for external input 2"), 1);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    ask(207, {0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 state selectable"}));
}

TEST_F(clock_test, switched_off_releases_our_pins_and_nobody_elses) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 6);
    d.pins[40] = d.pins[11];  // a receiver for satellites, say
    d.pins[40].devices[1] = PIN_SELECTABLE;
    d.pins[40].prio = 9;
    d.pins[41] = d.pins[11];
    d.pins[41].output = true;
    d.pins[41].devices[1] = PIN_CONNECTED;
    start(&d);
    select(1);
    d.take();
    (void)c.take_all();
    ask(206, {0});
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 state disconnected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 0"}));  // locked, to something that is none of ours
}

TEST_F(clock_test, nothing_is_touched_before_a_source_is_named) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    d.pins[11].devices[1] = PIN_CONNECTED;
    d.tracked = 11;
    d.work();
    start(&d);
    ask(206, {1});
    EXPECT_TRUE(d.take_settings().empty());
    ask(209, {1, 0});  // as it is already
    EXPECT_TRUE(d.take_settings().empty());
    EXPECT_TRUE(c.take_all().empty());
}

TEST_F(clock_test, nobody_watching_is_holdover_after_the_grace_time) {
    fake_dpll d(kernel, driver::forces_holdover);
    direct_pins(&d);
    start(&d);
    select(1);
    d.take();
    c.hang_up();
    loop.run(9900);
    EXPECT_TRUE(d.take_settings().empty());
    loop.run(200);
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 state disconnected"}));
}

// --- states ---

TEST_F(clock_test, lock_states_as_the_daemon_knows_them) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    start(&d);
    select(1);
    (void)c.take_all();
    const auto shows = [&](std::uint32_t status) {
        d.status = status;
        d.notify_device();
        loop.run(1);
        const texts all = c.take_all();
        return all.empty() ? std::string("-") : all.back();
    };
    EXPECT_EQ(shows(2), "-");  // locked, without a holdover to fall back to: locked still
    EXPECT_EQ(shows(4), "clock 3 0");
    EXPECT_EQ(shows(1), "clock 2 0");
    EXPECT_EQ(shows(77), "clock 5 0");  // a status of the future is transient
    EXPECT_EQ(shows(3), "clock 4 1");
}

TEST_F(clock_test, without_notifications_the_state_is_asked_for) {
    fake_dpll d(kernel, driver::automatic);
    d.notifies = false;
    direct_pins(&d, 6);
    start(&d);
    select(1);
    (void)c.take_all();
    d.pins[11].signal = false;
    d.work();
    loop.run(1001);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    d.pins[11].signal = true;
    d.work();
    loop.run(1010);
    EXPECT_EQ(c.take_all().back(), "clock 4 1");
}

TEST_F(clock_test, lost_notifications_and_disturbed_dumps_are_read_again) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 6);
    d.disturb_dumps = 2;
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    d.notifies = false;
    d.pins[11].signal = false;
    d.work();
    kernel.generic_queue.push_back({-ENOBUFS, {}});
    loop.run(10);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    EXPECT_EQ(d.take(), (texts{"dump devices", "dump pins", "get pin 11"}));
}

TEST_F(clock_test, a_pin_that_reports_often_costs_no_requests) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 6);
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    for (int i = 0; i < 100; ++i) d.notify_pin(11);
    loop.run(10);
    EXPECT_TRUE(d.take().empty());
    EXPECT_TRUE(c.take_all().empty());
}

// --- what can't be done ---

TEST_F(clock_test, a_refused_source_is_said_in_one_line_and_becomes_holdover) {
    fake_dpll d(kernel, driver::forces_holdover);
    direct_pins(&d);
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    d.refuse_pin[12] = EINVAL;
    select(2);
    EXPECT_EQ(d.take_settings(),
              (texts{"pin 12 device 1 state connected", "pin 11 device 1 state disconnected"}));
    EXPECT_EQ(log.count("clock: can't use pin 12 (eth2): Invalid argument"), 1);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    d.refuse_pin.clear();
    select(2);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 2"}));
}

TEST_F(clock_test, a_pin_without_the_capability_is_not_even_tried) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d, 0);
    start(&d);
    select(1);
    EXPECT_TRUE(d.take_settings().empty());
    EXPECT_EQ(log.count("can't use pin 11 (eth1): Operation not supported"), 1);
}

TEST_F(clock_test, pins_that_can_only_be_ranked_are_ranked_last) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 2);
    for (const std::uint32_t id : {11U, 12U}) d.pins[id].devices[1] = PIN_SELECTABLE;
    start(&d);
    select(1);
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 prio 0", "pin 12 device 1 prio 14"}));
    select(2);
    EXPECT_EQ(d.take_settings(), (texts{"pin 12 device 1 prio 0", "pin 11 device 1 prio 14"}));
    EXPECT_EQ(c.take_all().back(), "clock 4 2");
}

TEST_F(clock_test, without_permission_it_is_said_once_a_request) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    d.refuse_set = EPERM;
    start(&d);
    select(1);
    EXPECT_EQ(log.count("Operation not permitted"), 1);
    loop.run(5000);
    EXPECT_EQ(log.count("Operation not permitted"), 1);
}

TEST_F(clock_test, a_busy_driver_is_asked_again) {
    fake_dpll d(kernel, driver::mux_automatic);
    mux_pins(&d);
    d.busy = 3;
    start(&d);
    select(1);
    EXPECT_TRUE(c.take_all().empty());
    loop.run(3100);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    EXPECT_EQ(log.count("can't"), 0);
    d.busy = 1000;
    select(2);
    loop.run(60000);
    EXPECT_EQ(log.count("stays busy"), 1);
    d.take();
    loop.run(10000);
    EXPECT_TRUE(d.take_settings().empty());
}

TEST_F(clock_test, a_port_without_a_pin_can_not_be_followed) {
    fake_dpll d(kernel, driver::automatic);
    direct_pins(&d, 6);
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    select(3);
    EXPECT_EQ(log.count("port 3 (eth3) has no clock pin"), 1);
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 state disconnected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    // The driver comes up with a pin for it.
    d.pins[13] = d.pins[12];
    kernel.set(port(3, 13));
    loop.run(200);
    EXPECT_EQ(d.take_settings(), (texts{"pin 13 device 1 prio 0", "pin 13 device 1 state selectable"}));
}

TEST_F(clock_test, a_device_that_goes_and_returns_gets_what_is_wanted) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    start(&d);
    select(1);
    (void)c.take_all();
    d.take();
    d.has_device = false;
    d.notify_device(DPLL_CMD_DEVICE_DELETE_NTF);
    loop.run(200);
    EXPECT_EQ(c.take_all(), (texts{"clock 2 0"}));
    d.has_device = true;
    d.pins[11].devices[1] = PIN_DISCONNECTED;
    d.status = 1;
    d.notify_pin(11, DPLL_CMD_PIN_CREATE_NTF);
    d.notify_device(DPLL_CMD_DEVICE_CREATE_NTF);
    loop.run(200);
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 device 1 state connected"}));
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
}

// --- the start ---

TEST_F(clock_test, automatic_choice_of_the_backend) {
    options.dpll = dpll_kind::automatic;
    {
        fake_dpll d(kernel, driver::direct_manual);
        d.has_family = false;
        start(&d);
        EXPECT_EQ(log.count("this kernel has no clock interface, going on without"), 1);
        select(1);
        EXPECT_TRUE(c.take_all().empty());
        nsmd_stop(std::exchange(n, nullptr));
        c.hang_up();
        c.sequence = c.expected = 0;
    }
    fake_dpll d(kernel, driver::direct_manual);
    d.type = DPLL_TYPE_PPS;  // no clock for Ethernet
    start(&d);
    EXPECT_EQ(log.count("no clock device for Ethernet, going on without"), 1);
}

TEST_F(clock_test, the_kernels_clock_asked_for_by_name_must_be_there) {
    fake_dpll d(kernel, driver::direct_manual);
    d.has_family = false;
    EXPECT_EQ(nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000}), nullptr);
    EXPECT_EQ(log.count("error clock: this kernel has no clock interface"), 1);
    d.has_family = true;
    d.has_device = false;  // its driver may come later
    start(&d);
    EXPECT_EQ(log.count("no kernel device yet"), 1);
}

TEST_F(clock_test, a_device_is_named_by_number_module_or_clock) {
    fake_dpll d(kernel, driver::direct_manual);
    direct_pins(&d);
    for (const auto& [name, found] :
         std::vector<std::pair<const char*, bool>>{{"1", true},
                                                   {"chip", true},
                                                   {"chip/0011223344556677", true},
                                                   {"chip/11223344556678", false},
                                                   {"chip/", false},
                                                   {"2", false},
                                                   {"ship", false}}) {
        options.kernel.device = name;
        const long before = log.count("kernel device 1 of chip");
        n = nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000});
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(log.count("kernel device 1 of chip") - before, found) << name;
        nsmd_stop(std::exchange(n, nullptr));
    }
}

TEST_F(clock_test, the_status_shows_device_and_pins) {
    fake_dpll d(kernel, driver::mux_automatic);
    mux_pins(&d);
    start(&d);
    select(1);
    text_buffer text;
    ASSERT_TRUE(nsmd_status(n, &text));
    const std::string all(text.view());
    text_free(&text);
    for (const char* part :
         {"kernel device 1 (chip 0011223344556677), automatic, status 3",
          "pin 11 (eth1): on pin 21, connected", "pin 21 (unnamed): on device 1, connected, priority 0"})
        EXPECT_NE(all.find(part), std::string::npos) << part << " in\n" << all;
}

// Damaged messages from the kernel's side: nothing breaks, and the next whole reading is believed again.
TEST_F(clock_test, garbage_is_survived) {
    fake_dpll d(kernel, driver::mux_automatic);
    mux_pins(&d);
    start(&d);
    nl_builder b;
    fake_dpll::begin(&b, DPLL_CMD_PIN_CHANGE_NTF);
    d.put_pin(&b, 11);
    const auto whole = octets_of(b);
    std::uint32_t random = 1;
    for (int round = 0; round < 3000; ++round) {
        auto bad = whole;
        for (int i = 0; i < 3; ++i) {
            random = random * 1664525 + 1013904223;
            bad[16 + (random >> 8) % (bad.size() - 16)] = static_cast<std::uint8_t>(random >> 24);
        }
        kernel.generic_queue.push_back({0, bad});
        if (round % 50 == 0) loop.run(1);
    }
    loop.run(1000);
    kernel.generic_queue.push_back({-ENOBUFS, {}});
    loop.run(200);
    d.take();
    select(1);
    EXPECT_EQ(d.take_settings(), (texts{"pin 11 mux 21 state connected", "pin 21 device 1 prio 0"}));
}

}  // namespace
