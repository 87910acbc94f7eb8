// The disk fails at each call of a save.
#include <sys/wait.h>

#include "suite/host/file.h"
#include "suite/rights/user.h"
#include "unit/failing_disk.h"
#include "unit/suite_host_support.h"

namespace {

using failing_disk::fault;

const std::string OLD = "hostname old\n", NEW = "hostname new\n";

class FailingDisk : public Host {
  protected:
    void SetUp() override {
        read(OLD);
        run("hostname new", CONFIG_MODE);
    }

    // The folder is closed to the user of this process from now on; the files are his.
    void become_user() {
        rights_user user;
        ASSERT_EQ(rights_user_find("65534:65534", &user), nullptr);
        ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
        host_file_give(config.c_str(), user);
        ASSERT_EQ(rights_become(user, 0), 0);
        ASSERT_EQ(::open((folder + "/none").c_str(), O_WRONLY | O_CREAT, 0600), -1);
    }

    // How a process of its own ended that did so.
    static int status_of(const std::function<void()>& what) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            what();
            std::fflush(nullptr);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
    // The fault comes at each call in turn; how many there were.
    int save_after_each(fault kind) {
        const bool is_told = kind != fault::killed;
        bool struck = true;
        int at = 0;
        while (struck && !HasFailure()) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + " at call " + std::to_string(++at));
            write_file(config, OLD);
            said.clear();
            failing_disk::arm(folder, kind, at);
            const std::string printed = is_told ? run("write") : "";
            struck = is_told ? failing_disk::disarm() : status_of([this] { run("write"); }) != 0;
            failing_disk::disarm();
            const bool is_saved = is_told && last_result == cli_result::ok;
            if (is_told && !is_saved) {
                EXPECT_EQ(printed, "% Can't save " + config + ": No space left on device\n");
                EXPECT_GE(logged().size(), 1U);
            }
            // What the save itself could not put right is seen to by the next start.
            EXPECT_TRUE((is_told && kind != fault::full) || host_file_settle(config.c_str()) == 0);
            const std::string content = read_file(config);
            EXPECT_TRUE(content == NEW || (!is_saved && content == OLD)) << content;
            kept_old += content == OLD;
            EXPECT_EQ(run("write"), "") << "there is room again";
            EXPECT_EQ(read_file(config), NEW);
        }
        return at - 1;
    }

    int kept_old = 0;
};

TEST_F(FailingDisk, SaveByANewFile) {
    for (fault kind : {fault::once, fault::cut, fault::killed}) EXPECT_GE(save_after_each(kind), 9);
    EXPECT_GE(save_after_each(fault::full), 4);
}

TEST_F(FailingDisk, SaveInPlaceByAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    EXPECT_EQ(status_of([this] {
                  become_user();
                  EXPECT_GE(save_after_each(fault::once), 18);
                  EXPECT_GE(kept_old, 13);
                  for (fault kind : {fault::cut, fault::killed}) EXPECT_GE(save_after_each(kind), 18);
                  EXPECT_GE(save_after_each(fault::full), 8);
              }),
              0);
}

// A save must not make a file of what is none: /dev/null is a usual choice for no configuration.
TEST_F(FailingDisk, WhatIsNoFileStaysWhatItIs) {
    unlink(config.c_str());
    ASSERT_EQ(mkfifo(config.c_str(), 0600), 0);
    EXPECT_EQ(run("write"), "% Can't save " + config + ": " + strerror(EOPNOTSUPP) + "\n");
    struct stat status {};
    ASSERT_EQ(stat(config.c_str(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

}  // namespace
