// Saving, loading, recovery and locking of the configuration store.

#include "core/config/TonaviConfigStore.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/file.h>
#include <unistd.h>

namespace tonavi {
namespace {

using testing::FaultyFileSystem;
using testing::readText;
using testing::writeText;
namespace fs = std::filesystem;

class ConfigStoreTest : public ::testing::Test {
  protected:
    ConfigStoreTest() : files(std::make_shared<FaultyFileSystem>()), store(folder.path(), files) {
        store.setClockForTesting([] { return 1700000000.75; });
    }

    fs::path corruptURL() const { return folder.path() / "state.corrupt-1700000000.json"; }

    testing::TemporaryFolder folder;
    std::shared_ptr<FaultyFileSystem> files;
    TonaviConfigStore store;
};

TEST_F(ConfigStoreTest, FreshFolderWritesFirstRunAndTheSecondSaveKeepsThePrevious) {
    EXPECT_TRUE(fs::is_directory(store.configsDir()));
    EXPECT_EQ(store.load(), TonaviConfig::firstRunDefaults());
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), TonaviConfig::firstRunDefaults());
    EXPECT_FALSE(fs::exists(store.previousURL()));
    EXPECT_FALSE(store.takeRecoveryNotice());

    const std::string first = readText(store.configURL());
    const TonaviConfig a = testing::sampleConfig(1);
    store.save(a);
    EXPECT_TRUE(readText(store.previousURL()) == first);
    const std::string second = readText(store.configURL());
    store.save(testing::sampleConfig(2));
    EXPECT_TRUE(readText(store.previousURL()) == second);
    EXPECT_EQ(store.load(), testing::sampleConfig(2));
    EXPECT_FALSE(fs::exists(store.temporaryURL()));
    // The file is the disk form: pretty printed, sorted keys.
    EXPECT_TRUE(readText(store.configURL()) == encodeTonaviConfig(testing::sampleConfig(2)));
}

TEST_F(ConfigStoreTest, EmptyObjectIsNotDamage) {
    writeText(store.configURL(), "{}");
    EXPECT_EQ(store.load(), TonaviConfig());
    EXPECT_FALSE(fs::exists(corruptURL()));
    EXPECT_FALSE(store.takeRecoveryNotice());
    EXPECT_EQ(readText(store.configURL()), "{}");
}

TEST_F(ConfigStoreTest, TruncatedFileWithWholeAppsKeepsThemOnFirstRunDefaults) {
    TonaviConfig saved = testing::sampleConfig(0);
    const std::string text = encodeTonaviConfig(saved);
    // Cut inside "bluetooth", well after the apps array (the first key) closed.
    const std::string damaged = text.substr(0, text.find("\"bluetooth\"") + 20);
    writeText(store.configURL(), damaged);

    const TonaviConfig loaded = store.load();
    TonaviConfig expected = TonaviConfig::firstRunDefaults();
    expected.apps = saved.apps;
    EXPECT_EQ(loaded, expected);
    EXPECT_TRUE(readText(corruptURL()) == damaged);
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), expected);
    EXPECT_EQ(store.takeRecoveryNotice(),
              "Tonavi's settings file was damaged, so it was set aside as state.corrupt-1700000000.json in "
              "Application Support/Tonavi. Kept: your apps.");
    EXPECT_FALSE(store.takeRecoveryNotice());
}

TEST_F(ConfigStoreTest, ReadablePreviousFileWinsWholesale) {
    const TonaviConfig previous = testing::sampleConfig(2);
    writeText(store.previousURL(), encodeTonaviConfig(previous));
    const std::string text = encodeTonaviConfig(testing::sampleConfig(0));
    writeText(store.configURL(), text.substr(0, text.size() / 2));

    EXPECT_EQ(store.load(), previous);
    EXPECT_EQ(store.takeRecoveryNotice(),
              "Tonavi's settings file was damaged, so it was set aside as state.corrupt-1700000000.json in "
              "Application Support/Tonavi. Kept: your last saved setup.");
    // The recovered configuration is saved; the good previous file is not displaced by the bad one.
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), previous);
    EXPECT_EQ(decodeTonaviConfig(readText(store.previousURL())), previous);
}

TEST_F(ConfigStoreTest, NothingReadableGivesFirstRunAndSaysSo) {
    writeText(store.previousURL(), "not json");
    writeText(store.configURL(), "\x01\x02 garbage \"apps\": [ { \"id\": \"a\" ");
    EXPECT_EQ(store.load(), TonaviConfig::firstRunDefaults());
    EXPECT_EQ(store.takeRecoveryNotice(),
              "Tonavi's settings file was damaged, so it was set aside as state.corrupt-1700000000.json in "
              "Application Support/Tonavi. Nothing in it could be read.");
}

TEST_F(ConfigStoreTest, MinesDevicesAndGroupsSilentlyAndEmptyArraysStillReplace) {
    // Devices whole, groups an empty array, apps broken inside: apps stay the first-run ones.
    const std::string damaged = "{\n  \"apps\": [ {\"volume\": 1} ],\n  \"devices\": [{\"id\": \"d\", "
                                "\"useCount\": -3}],\n  \"groups\": [],\n  \"locks\": {";
    writeText(store.configURL(), damaged);
    const TonaviConfig loaded = store.load();
    EXPECT_EQ(loaded.apps, TonaviConfig::firstRunDefaults().apps);
    ASSERT_EQ(loaded.devices.size(), 1u);
    EXPECT_EQ(loaded.devices[0].useCount, 0);
    EXPECT_TRUE(loaded.groups.empty());
    EXPECT_NE(store.takeRecoveryNotice()->find("Nothing in it could be read."), std::string::npos);
}

TEST_F(ConfigStoreTest, UnreadableFileIsRecoveredAndTheNextSaveReplacesIt) {
    writeText(store.previousURL(), encodeTonaviConfig(testing::sampleConfig(1)));
    writeText(store.configURL(), "{\"apps\": [");
    // The move aside fails: recovery goes on from the previous file.
    files->shouldFail = [](FaultyFileSystem::Op op, const fs::path&) {
        return op == FaultyFileSystem::Op::move;
    };
    // The first read of state.json fails too, so there are no bytes at all.
    int reads = 0;
    auto moveFails = files->shouldFail;
    files->shouldFail = [&](FaultyFileSystem::Op op, const fs::path& p) {
        if (op == FaultyFileSystem::Op::read && p.filename() == "state.json" && reads++ == 0)
            return true;
        return moveFails(op, p);
    };
    EXPECT_EQ(store.load(), testing::sampleConfig(1));
    EXPECT_FALSE(fs::exists(corruptURL()));
    files->shouldFail = nullptr;
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), testing::sampleConfig(1));
    EXPECT_EQ(decodeTonaviConfig(readText(store.previousURL())), testing::sampleConfig(1));
}

TEST_F(ConfigStoreTest, FailedNoticeAndFailedSaveStillReturnTheRecoveredConfiguration) {
    writeText(store.configURL(), "[1, 2");
    files->shouldFail = [](FaultyFileSystem::Op op, const fs::path&) {
        return op == FaultyFileSystem::Op::writeAtomically;
    };
    EXPECT_EQ(store.load(), TonaviConfig::firstRunDefaults());
    EXPECT_FALSE(store.takeRecoveryNotice());
    EXPECT_FALSE(fs::exists(store.configURL()));
    EXPECT_EQ(readText(corruptURL()), "[1, 2");
}

TEST_F(ConfigStoreTest, FirstRunSaveFailureRaises) {
    files->shouldFail = [](FaultyFileSystem::Op op, const fs::path&) {
        return op == FaultyFileSystem::Op::move;
    };
    EXPECT_THROW(store.load(), std::system_error);
    EXPECT_FALSE(fs::exists(store.configURL()));
    EXPECT_FALSE(fs::exists(store.temporaryURL()));
}

// Every file operation of a save, made to fail in turn.
TEST_F(ConfigStoreTest, SaveFailingAtAnyStepLeavesBothFilesAsTheyWere) {
    const std::string before = encodeTonaviConfig(testing::sampleConfig(1));
    const std::string previous = encodeTonaviConfig(testing::sampleConfig(2));
    const TonaviConfig next = testing::sampleConfig(3);
    int failures = 0;
    for (int step = 0;; ++step) {
        writeText(store.configURL(), before);
        writeText(store.previousURL(), previous);
        writeText(store.temporaryURL(), "left over");
        files->operations = 0;
        files->failAt = step;
        bool raised = false;
        try {
            store.save(next);
        } catch (const std::system_error&) {
            raised = true;
        }
        files->failAt = -1;
        const bool injected = step < files->operations;
        EXPECT_FALSE(fs::exists(store.temporaryURL())) << "step " << step;
        EXPECT_FALSE(fs::exists(store.stagedPreviousURL())) << "step " << step;
        if (raised) {
            ++failures;
            EXPECT_TRUE(readText(store.configURL()) == before) << "step " << step;
            EXPECT_TRUE(readText(store.previousURL()) == previous) << "step " << step;
        } else {
            EXPECT_TRUE(decodeTonaviConfig(readText(store.configURL())) == next) << "step " << step;
            const std::string kept = readText(store.previousURL());
            EXPECT_TRUE(kept == before || kept == previous) << "step " << step;
        }
        if (!injected)
            break;
    }
    // Writing the temporary file and the replacement can each fail the save.
    EXPECT_GE(failures, 2);

    // Without a current file the temporary file is moved into place; a failed move leaves nothing.
    for (int step = 0;; ++step) {
        fs::remove(store.configURL());
        files->operations = 0;
        files->failAt = step;
        bool raised = false;
        try {
            store.save(next);
        } catch (const std::system_error&) {
            raised = true;
        }
        files->failAt = -1;
        const bool injected = step < files->operations;
        EXPECT_FALSE(fs::exists(store.temporaryURL()));
        EXPECT_EQ(fs::exists(store.configURL()), !raised) << "step " << step;
        if (!injected)
            break;
    }
}

TEST_F(ConfigStoreTest, DamagedCurrentFileNeverDisplacesAGoodPrevious) {
    const std::string good = encodeTonaviConfig(testing::sampleConfig(1));
    writeText(store.previousURL(), good);
    writeText(store.configURL(), "{ damaged");
    store.save(testing::sampleConfig(2));
    EXPECT_TRUE(readText(store.previousURL()) == good);
    store.save(testing::sampleConfig(3));
    EXPECT_EQ(decodeTonaviConfig(readText(store.previousURL())), testing::sampleConfig(2));
}

TEST_F(ConfigStoreTest, EncodingFailureTouchesNothing) {
    store.save(testing::sampleConfig(1));
    const std::string before = readText(store.configURL());
    TonaviConfig bad = testing::sampleConfig(2);
    bad.softMasterPercent = std::numeric_limits<double>::infinity();
    files->operations = 0;
    EXPECT_THROW(store.save(bad), ConfigEncodeError);
    EXPECT_EQ(files->operations, 0);
    EXPECT_TRUE(readText(store.configURL()) == before);
}

TEST_F(ConfigStoreTest, ExclusiveAccessHoldsTheLockAndRunsWithoutIt) {
    const int value = store.withExclusiveAccess([&] {
        // A second open file description cannot take the lock while the body runs.
        const int fd = ::open(store.lockURL().c_str(), O_RDWR);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        ::close(fd);
        return 42;
    });
    EXPECT_EQ(value, 42);
    EXPECT_EQ(fs::status(store.lockURL()).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    const int fd = ::open(store.lockURL().c_str(), O_RDWR);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0); // released afterwards
    ::close(fd);

    EXPECT_THROW(store.withExclusiveAccess([]() -> int { throw std::runtime_error("body"); }),
                 std::runtime_error);

    fs::remove(store.lockURL());
    fs::create_directory(store.lockURL());
    bool ran = false;
    store.withExclusiveAccess([&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(ConfigStoreTest, ServiceSaveKeepsTheSettingsTheUserInterfaceOwns) {
    TonaviConfig onDisk = testing::sampleConfig(1);
    onDisk.ui.theme = "from the interface";
    onDisk.startAtLogin = true;
    onDisk.superVolumeKeys = true;
    store.save(onDisk);

    TonaviConfig memory = testing::sampleConfig(2);
    memory.ui.theme = "stale";
    memory.startAtLogin = false;
    memory.superVolumeKeys = false;
    store.saveKeepingAppOwnedSettings(memory);

    TonaviConfig expected = memory;
    expected.ui = onDisk.ui;
    expected.startAtLogin = true;
    expected.superVolumeKeys = true;
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), expected);

    // A damaged file is set aside with its notice, and the settings in memory are written.
    writeText(store.configURL(), "{ \"ui\": ");
    store.saveKeepingAppOwnedSettings(memory);
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), memory);
    EXPECT_EQ(readText(corruptURL()), "{ \"ui\": ");
    EXPECT_TRUE(store.takeRecoveryNotice());

    // No file at all: no first-run detour.
    fs::remove(store.configURL());
    store.saveKeepingAppOwnedSettings(memory);
    EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), memory);
}

TEST(ConfigSalvage, ScansStringsBracketsAndScalars) {
    using nlohmann::json;
    // A "]" inside a string does not close the array; an escaped quote does not end the string.
    const auto a = TonaviConfigStore::salvageTopLevel(
        "{\"x\": 1, \"apps\" :\n [{\"id\": \"a]\\\"}\"}, {\"id\": \"b\"}] , \"groups\": 7, \"devices\"");
    ASSERT_TRUE(a);
    EXPECT_EQ((*a)["apps"], json::parse(R"([{"id": "a]\"}"}, {"id": "b"}])"));
    EXPECT_EQ((*a)["groups"], 7);
    EXPECT_FALSE(a->contains("devices"));

    // Cut off inside the array: the scan runs out, the key is skipped.
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel("{\"apps\": [ { \"id\": \"a\" "));
    // A scalar needs a line feed, comma or brace after it.
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel("\"groups\": 7"));
    EXPECT_EQ((*TonaviConfigStore::salvageTopLevel("\"groups\": \"g\"}"))["groups"], "g");
    // Carriage return and tab are not skipped, so the value does not start with a bracket.
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel("\"apps\":\t[1]"));
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel("\"apps\":\r\n[1]"));
    // Found at any depth, first occurrence wins, and mismatched bracket kinds still count.
    const auto nested =
        TonaviConfigStore::salvageTopLevel("{\"a\": {\"devices\": [1, {2]}, \"devices\": [3]");
    EXPECT_FALSE(nested); // "[1, {2]}" closes at "}" but does not parse
    const auto deep = TonaviConfigStore::salvageTopLevel("[[{\"devices\": [\"x\"]}");
    ASSERT_TRUE(deep);
    EXPECT_EQ((*deep)["devices"], json::array({"x"}));
    // Not UTF-8: nothing.
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel("\"apps\": [1] \xc3\x28"));
    EXPECT_FALSE(TonaviConfigStore::salvageTopLevel(""));
}

// Truncations of a valid file, with and without a readable previous file.
TEST(ConfigStoreTruncation, EveryCutLoadsAndKeepsWhatIsWhole) {
    const TonaviConfig saved = testing::sampleConfig(0);
    const TonaviConfig previous = testing::sampleConfig(4);
    const std::string text = encodeTonaviConfig(saved);
    const std::string previousText = encodeTonaviConfig(previous);
    // The apps array is the first key; it is whole once its closing bracket is in.
    const std::size_t appsEnd = text.find("\n  ],\n") + 4;
    const std::size_t devicesEnd = text.find("\n  ],\n", text.find("\"devices\"")) + 4;
    ASSERT_EQ(nlohmann::json::parse(text.substr(text.find('['), appsEnd - text.find('['))).size(),
              saved.apps.size());

    testing::TemporaryFolder folder;
    const TonaviConfigStore store(folder.path(), std::make_shared<RealFileSystem>(false));
    std::mt19937 random(7);
    std::vector<std::size_t> cuts;
    for (std::size_t cut = appsEnd - 3; cut < appsEnd + 3; ++cut)
        cuts.push_back(cut);
    for (int i = 0; i < 150; ++i)
        cuts.push_back(random() % text.size());
    cuts.push_back(0);
    for (const bool withPrevious : {false, true}) {
        for (const std::size_t cut : cuts) {
            for (const auto& entry : fs::directory_iterator(folder.path()))
                if (entry.is_regular_file())
                    fs::remove(entry.path());
            if (withPrevious)
                writeText(store.previousURL(), previousText);
            writeText(store.configURL(), text.substr(0, cut));
            const TonaviConfig loaded = store.load();
            if (withPrevious) {
                EXPECT_EQ(loaded, previous) << "cut " << cut;
            } else {
                const TonaviConfig firstRun = TonaviConfig::firstRunDefaults();
                EXPECT_EQ(loaded.apps, cut >= appsEnd ? saved.apps : firstRun.apps) << "cut " << cut;
                EXPECT_EQ(loaded.devices, cut >= devicesEnd ? saved.devices : firstRun.devices)
                    << "cut " << cut;
                EXPECT_EQ(loaded.ui, firstRun.ui);
            }
            EXPECT_EQ(decodeTonaviConfig(readText(store.configURL())), loaded) << "cut " << cut;
            EXPECT_TRUE(store.takeRecoveryNotice()) << "cut " << cut;
        }
    }
}

} // namespace
} // namespace tonavi
