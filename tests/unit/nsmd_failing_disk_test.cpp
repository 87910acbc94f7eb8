// The disk fails at each call that saves nsmd's port indexes and the simulated clock's registers.
#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "nsmd/clock/sim.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/rights/user.h"
#include "unit/failing_disk.h"

namespace {

using failing_disk::fault;

class NsmdFailingDisk : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/nsmd_disk_XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/file";
        memory_init(0);
        log_open("test");
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(count_warning, this);
    }
    void TearDown() override {
        log_remove_tap(count_warning, this);
        log_close();
        EXPECT_EQ(std::system(("rm -r " + folder).c_str()), 0);
    }
    static void count_warning(void* arg, int level, const char* line, std::size_t length) {
        const bool is_it = std::string_view(line, length).find(" can't write ") != std::string_view::npos;
        if (level == LOG_LEVEL_WARNING && is_it) ++static_cast<NsmdFailingDisk*>(arg)->warnings;
    }
    std::string content() {
        std::ostringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    }
    static link_info port(unsigned index) {
        link_info link{};
        link.kernel_ifindex = index;
        link.hardware_type = ARPHRD_ETHER;
        std::snprintf(link.name, sizeof link.name, "p%u", index);
        link.complete = true;
        return link;
    }

    // A second port's index is saved after the first's, then a third's.
    bool indexes_saved_after(fault kind, int at) {
        std::ofstream(path).close();
        warnings = 0;
        port_table* table = port_table_create(
            nullptr, 0,
            {[](void*, const nsmd_port&, port_event) {}, [](void*, const bridge_identity&) {}, nullptr});
        port_table_keep_indexes(table, path.c_str());
        port_table_link(table, port(1));
        EXPECT_EQ(content(), "1 p1\n");
        failing_disk::arm(path, kind, at);
        port_table_link(table, port(2));
        const bool struck = failing_disk::disarm();
        EXPECT_NE(port_table_find(table, 2), nullptr) << "it goes on without the file";
        const std::string left = content();
        EXPECT_TRUE(left == "1 p1\n2 p2\n" || left == "1 p1\n" || left.empty()) << left;
        EXPECT_EQ(warnings, left != "1 p1\n2 p2\n");
        kept += left == "1 p1\n";
        port_table_link(table, port(3));
        EXPECT_EQ(content(), "1 p1\n2 p2\n3 p3\n") << "there is room again";
        port_table_free(table);
        return struck;
    }

    bool registers_saved_after(fault kind, int at) {
        unlink(path.c_str());
        warnings = 0;
        lib_globals ctx{};
        ctx.master = thread_master_create();
        const dpll_sim_options options{1000, 0, path.c_str()};
        const dpll_backend clock =
            dpll_sim_create(&ctx, nullptr, options, {[](void*, const dpll_report&) {}, nullptr});
        const dpll_wanted off{false, 0, false, 0}, held{true, 0, true, 0};
        clock.apply(clock.self, off);
        EXPECT_EQ(content(), "2 0 0 0 0 0\n");
        failing_disk::arm(path, kind, at);
        clock.apply(clock.self, held);
        const bool struck = failing_disk::disarm();
        const std::string left = content();
        EXPECT_TRUE(left == "2 0 0 0 0 0\n" || left == "2 0 1 0 1 0\n" || left.empty()) << left;
        EXPECT_TRUE(warnings == 1 || left == "2 0 1 0 1 0\n");
        kept += left == "2 0 0 0 0 0\n";
        clock.apply(clock.self, held);
        EXPECT_EQ(content(), "2 0 1 0 1 0\n");
        clock.finish(clock.self);
        thread_master_finish(ctx.master);
        return struck;
    }

    template <typename body>
    int after_each(body run) {
        for (int at = 1;; ++at)
            if (SCOPED_TRACE("call " + std::to_string(at)); !run(at) || HasFailure()) return at - 1;
    }
    int indexes(fault kind) {
        return after_each([&](int at) { return indexes_saved_after(kind, at); });
    }
    int registers(fault kind) {
        return after_each([&](int at) { return registers_saved_after(kind, at); });
    }

    std::string folder, path;
    int warnings = 0, kept = 0;
};

TEST_F(NsmdFailingDisk, IndexesByANewFile) {
    EXPECT_GE(indexes(fault::once), 4);
    EXPECT_GE(indexes(fault::cut), 4);
    EXPECT_GE(indexes(fault::full), 2);
    EXPECT_GE(kept, 3);
}

TEST_F(NsmdFailingDisk, IndexesInPlaceByAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const pid_t child = fork();
    if (child == 0) {
        rights_user user;
        EXPECT_EQ(rights_user_find("65534:65534", &user), nullptr);
        EXPECT_EQ(chmod(folder.c_str(), 0755), 0);
        EXPECT_EQ(rights_give(path.c_str(), user, true), 1);
        EXPECT_EQ(rights_become(user, 0), 0);
        EXPECT_GE(indexes(fault::once), 7);
        EXPECT_GE(indexes(fault::cut), 7);
        EXPECT_GE(indexes(fault::full), 3);
        std::fflush(nullptr);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(NsmdFailingDisk, RegistersOfTheSimulatedClock) {
    EXPECT_GE(registers(fault::once), 4);
    EXPECT_GE(registers(fault::cut), 4);
    EXPECT_GE(registers(fault::full), 2);
    EXPECT_GE(kept, 2);
}

}  // namespace
