// The keychain file layer against files it must not trust: schemas that are
// not ours, statements that would run on, files held by another program,
// files and directories others could read or replace, and what a killed
// create leaves behind.
#include "Platform/Security/KeychainFile.h"
#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "tests/Platform/Security/KeychainSandbox.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <condition_variable>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace platform;
using testsupport::contentsOf;
using testsupport::modeOf;
using testsupport::tamper;

namespace {

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

// The notes the keychain layer gave, for the tests to wait on and read.
struct Notices {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::string> lines;
};

Notices sharedNotices;

Notices& notices()
{
    return sharedNotices;
}

void collectNotice(const std::string& line)
{
    std::lock_guard lock(sharedNotices.mutex);
    sharedNotices.lines.push_back(line);
    sharedNotices.arrived.notify_all();
}

class KeychainFileTest : public testsupport::KeychainSandbox {
protected:
    void SetUp() override
    {
        KeychainSandbox::SetUp();
        ::unsetenv("ZARVO_KEYCHAIN_ALLOW_READABLE");
        {
            std::lock_guard lock(notices().mutex);
            notices().lines.clear();
        }
        SecKeychainSetNoticeHandler(collectNotice);
    }

    void TearDown() override
    {
        SecKeychainSetNoticeHandler(nullptr);
        SecKeychainSetBusyWait(std::chrono::seconds(30));
        security::setStepWorkLimit(security::kDefaultStepWorkLimit);
        ::unsetenv("ZARVO_KEYCHAIN_ALLOW_READABLE");
        KeychainSandbox::TearDown();
    }

    // A keychain without a password holding one generic password "svc".
    SecKeychainRef makeKeychain(const std::string& path)
    {
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, &keychain), errSecSuccess);
        EXPECT_EQ(SecItemAdd({{kSecClass, kSecClassGenericPassword},
                              {kSecAttrService, "svc"},
                              {kSecValueData, bytes("secret")},
                              {kSecUseKeychain, Value(keychain)}},
                             nullptr),
                  errSecSuccess);
        return keychain;
    }

    static OSStatus find(const SecKeychainRef& keychain, const Dictionary& attributes = {{kSecAttrService, "svc"}})
    {
        Dictionary query = attributes;
        query.set(kSecClass, kSecClassGenericPassword);
        query.set(kSecReturnData, true);
        query.set(kSecMatchSearchList, Array{Value(keychain)});
        return SecItemCopyMatching(query, nullptr);
    }

    static OSStatus add(const SecKeychainRef& keychain, std::string_view service)
    {
        return SecItemAdd({{kSecClass, kSecClassGenericPassword},
                           {kSecAttrService, service},
                           {kSecValueData, bytes("another")},
                           {kSecUseKeychain, Value(keychain)}},
                          nullptr);
    }

    static std::vector<std::string> noticesSoFar()
    {
        std::lock_guard lock(notices().mutex);
        return notices().lines;
    }
};

// ---- Only our schema -------------------------------------------------------

TEST_F(KeychainFileTest, OnlyAFileWithExactlyOurSchemaIsOpened)
{
    struct Case {
        const char* what;
        const char* sql;
    };
    const Case cases[] = {
        // Before the schema was checked, a look-up on this never returned
        // (every column depends on x, so no condition folds to false).
        {"items as an endless view",
         "DROP TABLE items; CREATE VIEW items AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) "
         "SELECT x AS id, 'none ' || x AS class, substr(x, 1, 0) AS \"acct\", substr(x, 1, 0) AS \"sdmn\", "
         "substr(x, 1, 0) AS \"srvr\", x * 0 AS \"ptcl\", x * 0 AS \"atyp\", x * 0 AS \"port\", "
         "substr(x, 1, 0) AS \"path\", substr(x, 1, 0) AS \"svce\", NULL AS \"gena\", NULL AS \"labl\", "
         "NULL AS \"desc\", NULL AS \"icmt\", NULL AS \"crtr\", NULL AS \"type\", NULL AS \"invi\", "
         "NULL AS \"nega\", 0.0 AS \"cdat\", 0.0 AS \"mdat\", NULL AS secret FROM n"},
        {"metadata as a view",
         "CREATE TABLE saved AS SELECT * FROM keychain_meta; DROP TABLE keychain_meta; "
         "CREATE VIEW keychain_meta AS SELECT * FROM saved"},
        {"a trigger", "CREATE TRIGGER emptied AFTER INSERT ON items BEGIN DELETE FROM items; END"},
        {"a table of another program", "CREATE TABLE notes (text TEXT)"},
        {"an index of our own missing", "DROP INDEX items_service"},
        {"an index too many", "CREATE INDEX items_label ON items (\"labl\")"},
        {"a column added", "ALTER TABLE items ADD COLUMN extra TEXT"},
    };
    for (const auto& [what, sql] : cases) {
        SCOPED_TRACE(what);
        const std::string path = sandboxPath("tampered.keychain");
        std::filesystem::remove(path);
        const auto keychain = makeKeychain(path);
        tamper(path, sql);
        const std::string before = contentsOf(path);

        EXPECT_EQ(find(keychain), errSecInvalidKeychain);
        EXPECT_EQ(add(keychain, "new"), errSecInvalidKeychain);
        EXPECT_EQ(SecKeychainDelete(keychain), errSecInvalidKeychain);
        EXPECT_EQ(contentsOf(path), before);
    }
}

TEST_F(KeychainFileTest, OneStepOfAStatementDoesBoundedWork)
{
    const std::string path = sandboxPath("large.keychain");
    const auto keychain = makeKeychain(path);
    tamper(path,
           "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 20000) "
           "INSERT INTO items (class, \"svce\", \"cdat\", \"mdat\") SELECT 'genp', 'service ' || x, 0, 0 FROM n");
    // A label is not indexed: a search for one that no item has reads every
    // row in one step. Found by its service, an item takes a few rows' work.
    const Dictionary byLabel{{kSecAttrLabel, "nobody's"}};
    const Dictionary byService{{kSecAttrService, "service 19999"}};
    ASSERT_EQ(find(keychain, byLabel), errSecItemNotFound);

    security::setStepWorkLimit(50);
    EXPECT_EQ(find(keychain, byLabel), errSecInvalidKeychain);
    EXPECT_EQ(find(keychain, byService), errSecSuccess);
    // The bound is per step, so it never adds up over a connection's life.
    EXPECT_EQ(find(keychain, byService), errSecSuccess);
}

// ---- A keychain held by another program -------------------------------------

class HeldKeychainTest : public KeychainFileTest {
protected:
    void SetUp() override
    {
        KeychainFileTest::SetUp();
        path_ = sandboxPath("held.keychain");
        keychain_ = makeKeychain(path_);
        ASSERT_EQ(sqlite3_open(path_.c_str(), &holder_), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(holder_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    }

    void TearDown() override
    {
        release();
        KeychainFileTest::TearDown();
    }

    void release()
    {
        if (holder_ != nullptr) {
            sqlite3_exec(holder_, "ROLLBACK", nullptr, nullptr, nullptr);
            sqlite3_close(holder_);
            holder_ = nullptr;
        }
    }

    std::string path_;
    SecKeychainRef keychain_;
    sqlite3* holder_ = nullptr;
};

TEST_F(HeldKeychainTest, AnOperationGivesUpAfterTheBusyWait)
{
    SecKeychainSetBusyWait(std::chrono::milliseconds(20));
    EXPECT_EQ(find(keychain_), errSecNotAvailable);
    EXPECT_EQ(add(keychain_, "new"), errSecNotAvailable);
    EXPECT_TRUE(noticesSoFar().empty());
    release();
    EXPECT_EQ(find(keychain_), errSecSuccess);
}

TEST_F(HeldKeychainTest, ALongWaitIsAnnouncedOnceAndEndsWhenTheFileIsFree)
{
    SecKeychainSetBusyWait(std::chrono::minutes(2));
    auto lookup = std::async(std::launch::async, [this] { return find(keychain_); });
    {
        std::unique_lock lock(notices().mutex);
        notices().arrived.wait(lock, [] { return !notices().lines.empty(); });
    }
    release();
    EXPECT_EQ(lookup.get(), errSecSuccess);
    const auto lines = noticesSoFar();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines.front().find("waiting"), std::string::npos) << lines.front();
    EXPECT_NE(lines.front().find(path_), std::string::npos) << lines.front();
}

// ---- Files others could read or replace ------------------------------------

TEST_F(KeychainFileTest, AFileOthersCouldReadOrChangeIsRefusedWithItsReason)
{
    const std::string path = sandboxPath("modes.keychain");
    const auto keychain = makeKeychain(path);
    struct Case {
        unsigned mode;
        OSStatus status;
        const char* reason;
    };
    const Case cases[] = {
        {0600, errSecSuccess, ""},
        {0400, errSecSuccess, ""},
        {0700, errSecSuccess, ""},
        {0640, errSecUnprotectedKeychain, "other users can read it (mode 0640)"},
        {0604, errSecUnprotectedKeychain, "other users can read it (mode 0604)"},
        {0620, errSecUnprotectedKeychain, "other users can change it (mode 0620)"},
        {0666, errSecUnprotectedKeychain, "other users can change it (mode 0666)"},
    };
    for (const auto& [mode, status, reason] : cases) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        EXPECT_EQ(find(keychain), status);
        if (status != errSecSuccess) {
            const std::string why = SecKeychainCopyRefusalReason();
            EXPECT_EQ(why.rfind("refusing the keychain " + path + ": ", 0), 0u) << why;
            EXPECT_NE(why.find(reason), std::string::npos) << why;
            EXPECT_EQ(why.find('\n'), std::string::npos);
            // No secret is read to tell whether it has a password.
            SecKeychainStatus state;
            EXPECT_EQ(SecKeychainGetStatus(keychain, &state), errSecSuccess);
        }
    }
}

TEST_F(KeychainFileTest, AReadableFileIsUsedOnlyWhenTheUserAllowsIt)
{
    const std::string path = sandboxPath("shared.keychain");
    const auto keychain = makeKeychain(path);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    ::setenv("ZARVO_KEYCHAIN_ALLOW_READABLE", "yes", 1);  // only "1" says so
    EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
    ::setenv("ZARVO_KEYCHAIN_ALLOW_READABLE", "1", 1);
    EXPECT_EQ(find(keychain), errSecSuccess);
    EXPECT_EQ(add(keychain, "kept readable"), errSecSuccess);
    EXPECT_EQ(modeOf(path), 0644u);
    // Being readable may be allowed; being writable by others never is.
    ASSERT_EQ(::chmod(path.c_str(), 0664), 0);
    EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
}

TEST_F(KeychainFileTest, EveryDirectoryAboveTheFileMustBeSafe)
{
    const std::string upper = sandboxPath("upper");
    const std::string path = upper + "/lower/deep.keychain";
    const auto keychain = makeKeychain(path);
    struct Case {
        unsigned mode;
        OSStatus status;
    };
    const Case cases[] = {
        {0777, errSecUnprotectedKeychain},
        {0770, errSecUnprotectedKeychain},  // the group could replace it too
        {01777, errSecSuccess},             // sticky, as /tmp: no one renames what is not theirs
        {0755, errSecSuccess},
    };
    for (const auto& [mode, status] : cases) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(::chmod(upper.c_str(), mode), 0);
        EXPECT_EQ(find(keychain), status);
        // A write does not mend a directory: the file could already have
        // been replaced.
        EXPECT_EQ(add(keychain, "service " + std::to_string(mode)), status);
        if (status != errSecSuccess) {
            const std::string why = SecKeychainCopyRefusalReason();
            EXPECT_NE(why.find("its directory " + upper + " "), std::string::npos) << why;
            EXPECT_NE(why.find("no sticky bit"), std::string::npos) << why;
        }
    }
    // Nor is a new keychain made in such a directory.
    ASSERT_EQ(::chmod(upper.c_str(), 0777), 0);
    const std::string created = upper + "/new.keychain";
    EXPECT_EQ(SecKeychainCreate(created.c_str(), 0, nullptr, true, nullptr, nullptr), errSecUnprotectedKeychain);
    EXPECT_FALSE(std::filesystem::exists(created));
    ASSERT_EQ(::chmod(upper.c_str(), 0700), 0);
}

// A sticky bit stops others renaming the keychain, not creating its journal
// beside it, which SQLite would then read or write: the keychain's own
// directory must be writable by its owner alone.
TEST_F(KeychainFileTest, TheKeychainsOwnDirectoryMayNotBeShared)
{
    const std::string shared = sandboxPath("shared");
    const auto keychain = makeKeychain(shared + "/own.keychain");
    ASSERT_EQ(::chmod(shared.c_str(), 01777), 0);
    EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
    const std::string why = SecKeychainCopyRefusalReason();
    EXPECT_NE(why.find("its directory " + shared + " "), std::string::npos) << why;
    ASSERT_EQ(::chmod(shared.c_str(), 0700), 0);
    EXPECT_EQ(find(keychain), errSecSuccess);
}

TEST_F(KeychainFileTest, TheDirectoriesCheckedAreWhereTheFileReallyLies)
{
    const std::string open = sandboxPath("open");
    const auto keychain = makeKeychain(open + "/real.keychain");
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    std::filesystem::create_directory(sandboxPath("safe"));
    const std::string link = sandboxPath("safe/link.keychain");
    std::filesystem::create_symlink(open + "/real.keychain", link);

    SecKeychainRef linked;
    ASSERT_EQ(SecKeychainOpen(link.c_str(), &linked), errSecSuccess);
    EXPECT_EQ(find(linked), errSecUnprotectedKeychain);
    EXPECT_NE(SecKeychainCopyRefusalReason().find("its directory " + open + " "), std::string::npos)
        << SecKeychainCopyRefusalReason();
    ASSERT_EQ(::chmod(open.c_str(), 0700), 0);
    EXPECT_EQ(find(linked), errSecSuccess);
}

// A path whose own directories are all safe may still lead, through a link
// or "..", into a directory that is not: the one checked is where the file
// really lies.
TEST_F(KeychainFileTest, ALinkOrDotDotOnTheWayIsFollowedToTheDirectoriesReallyAbove)
{
    const std::string open = sandboxPath("open");
    const std::string inner = open + "/inner";
    std::filesystem::create_directories(inner);
    ASSERT_EQ(::chmod(inner.c_str(), 0700), 0);
    makeKeychain(inner + "/real.keychain");
    std::filesystem::create_directory(sandboxPath("safe"));
    std::filesystem::create_directory_symlink(inner, sandboxPath("safe/hop"));
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);

    for (const std::string& path :
         {sandboxPath("safe/hop/real.keychain"), sandboxPath("safe/hop/../inner/real.keychain"),
          sandboxPath("safe/hop/./real.keychain"), sandboxPath("safe//hop/real.keychain")}) {
        SCOPED_TRACE(path);
        SecKeychainRef keychain;
        ASSERT_EQ(SecKeychainOpen(path.c_str(), &keychain), errSecSuccess);
        ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
        EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
        EXPECT_NE(SecKeychainCopyRefusalReason().find("its directory " + open + " "), std::string::npos)
            << SecKeychainCopyRefusalReason();
        ASSERT_EQ(::chmod(open.c_str(), 0755), 0);
        EXPECT_EQ(find(keychain), errSecSuccess);
    }
}

TEST_F(KeychainFileTest, AFileOrDirectoryOfAnotherUserIsRefused)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file to another user";
    }
    constexpr uid_t kNobody = 65534;
    const std::string directory = sandboxPath("theirs");
    const std::string path = directory + "/their.keychain";
    const auto keychain = makeKeychain(path);

    ASSERT_EQ(::chown(path.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
    EXPECT_NE(SecKeychainCopyRefusalReason().find("belongs to user 65534"), std::string::npos);
    EXPECT_EQ(add(keychain, "new"), errSecUnprotectedKeychain);  // not mended either
    ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
    EXPECT_EQ(find(keychain), errSecSuccess);

    ASSERT_EQ(::chown(directory.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(find(keychain), errSecUnprotectedKeychain);
    EXPECT_NE(SecKeychainCopyRefusalReason().find("its directory " + directory + " belongs to user 65534"),
              std::string::npos)
        << SecKeychainCopyRefusalReason();
    ASSERT_EQ(::chown(directory.c_str(), 0, 0), 0);
}

TEST_F(KeychainFileTest, AWriteMakesTheUsersOwnTooOpenFilePrivateAndSaysSo)
{
    const std::string path = sandboxPath("loose.keychain");
    const auto keychain = makeKeychain(path);
    ASSERT_EQ(::chmod(path.c_str(), 0664), 0);
    ASSERT_EQ(find(keychain), errSecUnprotectedKeychain);

    EXPECT_EQ(add(keychain, "new"), errSecSuccess);
    EXPECT_EQ(modeOf(path), 0600u);
    const auto lines = noticesSoFar();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines.front(), "made the keychain " + path + " private (mode 0600; it was 0664)");
    EXPECT_EQ(find(keychain), errSecSuccess);
}

TEST_F(KeychainFileTest, TheUsersOwnTooOpenFileCanStillBeDeleted)
{
    const std::string path = sandboxPath("doomed.keychain");
    const auto keychain = makeKeychain(path);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(SecKeychainDelete(keychain), errSecSuccess);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(KeychainFileTest, AFifoInPlaceOfTheFileIsNeverOpened)
{
    // Opening a FIFO to read would wait for a writer that never comes.
    ASSERT_EQ(::mkfifo(sandboxPath("fifo.keychain").c_str(), 0600), 0);
    SecKeychainRef keychain;
    ASSERT_EQ(SecKeychainOpen(sandboxPath("fifo.keychain").c_str(), &keychain), errSecSuccess);
    EXPECT_EQ(find(keychain), errSecInvalidKeychain);
    EXPECT_EQ(add(keychain, "new"), errSecInvalidKeychain);
}

// ---- What a killed create leaves -------------------------------------------

TEST_F(KeychainFileTest, ACreateRemovesWhatAKilledCreateLeftButNotWhatALiveOneMakes)
{
    const std::string directory = sandboxPath("made");
    std::filesystem::create_directory(directory);
    const auto file = [&directory](const std::string& name, std::string_view contents = "half") {
        const std::string path = directory + "/" + name;
        std::ofstream(path, std::ios::binary) << contents;
        return path;
    };
    const std::string stale = file(".keychain-AbC123.incomplete");
    const std::string staleJournal = file(".keychain-AbC123.incomplete-journal");
    const std::string orphanJournal = file(".keychain-Zz9999.incomplete-journal");
    const std::string live = file(".keychain-LiVe42.incomplete");
    // Names that are not ours stay, however close.
    const std::string backup = file(".keychain-backup");
    const std::string lookalike = file(".keychain-AbC123.incomplete.bak");
    // A creator at work holds its file locked, as create() does.
    const int liveDescriptor = ::open(live.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(liveDescriptor, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    ASSERT_EQ(::fcntl(liveDescriptor, F_OFD_SETLK, &lock), 0);

    ASSERT_EQ(SecKeychainCreate((directory + "/new.keychain").c_str(), 0, nullptr, true, nullptr, nullptr),
              errSecSuccess);
    ::close(liveDescriptor);

    EXPECT_FALSE(std::filesystem::exists(stale));
    EXPECT_FALSE(std::filesystem::exists(staleJournal));
    EXPECT_FALSE(std::filesystem::exists(orphanJournal));
    EXPECT_TRUE(std::filesystem::exists(live));
    EXPECT_TRUE(std::filesystem::exists(backup));
    EXPECT_TRUE(std::filesystem::exists(lookalike));
    EXPECT_TRUE(std::filesystem::exists(directory + "/new.keychain"));
}

TEST_F(KeychainFileTest, CreatorsAtWorkInOneDirectoryNeverRemoveEachOthersFiles)
{
    // Each create first cleans the directory, while the others are making
    // theirs: in other processes (their lock keeps their files) and in other
    // threads of this one (which the cleaner must not even open).
    const std::string directory = sandboxPath("busy");
    std::filesystem::create_directory(directory);
    constexpr int kWorkers = 3;
    constexpr int kKeychainsEach = 8;
    const auto createAll = [&directory](const std::string& worker) {
        int failures = 0;
        for (int index = 0; index < kKeychainsEach; ++index) {
            const std::string path = directory + "/" + worker + "-" + std::to_string(index) + ".keychain";
            failures += SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, nullptr) == errSecSuccess ? 0 : 1;
        }
        return failures;
    };
    std::vector<pid_t> children;
    for (int worker = 0; worker < kWorkers; ++worker) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::_exit(createAll("process" + std::to_string(worker)) == 0 ? 0 : 1);
        }
        children.push_back(child);
    }
    std::vector<std::future<int>> threads;
    for (int worker = 0; worker < kWorkers; ++worker) {
        threads.push_back(std::async(std::launch::async, createAll, "thread" + std::to_string(worker)));
    }
    for (auto& thread : threads) {
        EXPECT_EQ(thread.get(), 0);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    int keychains = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        EXPECT_FALSE(name.starts_with(".keychain-")) << name;
        SecKeychainRef keychain;
        ASSERT_EQ(SecKeychainOpen(entry.path().c_str(), &keychain), errSecSuccess);
        EXPECT_EQ(add(keychain, "svc"), errSecSuccess) << name;
        ++keychains;
    }
    EXPECT_EQ(keychains, 2 * kWorkers * kKeychainsEach);
}

}  // namespace
