// The file logger on file systems that fail it: a full disk, a read-only
// file system and one without user extended attributes. Each is mounted in
// a private mount namespace that the process enters before any thread
// starts, so the machine's own mounts are never touched. Every case gets
// them fresh, and the process-wide failure count from zero, so that cases
// run in any order and again (--gtest_repeat, --gtest_shuffle).
#include "QMFoundation/Logging/DDFileLogger.h"
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/internal/DDLogTesting.h"

#include "Platform/FileSystem/FileManager.h"

#include "tests/QMFoundation/Logging/FileLoggingSupport.h"
#include "tests/Support/NetworkNamespace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

using platform::FileManager;
using testing::HasSubstr;
using testsupport::currentPath;
using testsupport::readWholeFile;
using testsupport::writeDirectly;

namespace {

struct Mounts {
    std::string skipReason;  // empty when the file systems below can be mounted
    std::string small;       // tmpfs of 64 KiB
    std::string readOnly;    // tmpfs, remounted read-only
    std::string noAttributes;  // ramfs: no user extended attributes
};

Mounts& mounts()
{
    static Mounts shared;
    return shared;
}

std::string makeMountPoint()
{
    char path[] = "/tmp/zarvo-logfs-XXXXXX";
    return ::mkdtemp(path) != nullptr ? path : "";
}

// Must run while the process has one thread.
void enterMountNamespace()
{
    Mounts& result = mounts();
    result.small = makeMountPoint();
    result.readOnly = makeMountPoint();
    result.noAttributes = makeMountPoint();
    result.skipReason = testsupport::enterMountNamespace();
}

// Empty file systems, the read-only one still writable; false with errno
// set when one cannot be mounted.
bool mountFileSystems()
{
    return ::mount("zarvo-small", mounts().small.c_str(), "tmpfs", 0, "size=64k") == 0
           && ::mount("zarvo-ro", mounts().readOnly.c_str(), "tmpfs", 0, "size=64k") == 0
           && ::mount("zarvo-ramfs", mounts().noAttributes.c_str(), "ramfs", 0, nullptr) == 0;
}

// Detached: a logger let go at the end of a case may still hold its file
// open on the logging queue.
void unmountFileSystems()
{
    for (const auto* path : {&mounts().small, &mounts().readOnly, &mounts().noAttributes}) {
        ::umount2(path->c_str(), MNT_DETACH);
    }
}

void removeMountPoints()
{
    for (const auto* path : {&mounts().small, &mounts().readOnly, &mounts().noAttributes}) {
        ::rmdir(path->c_str());
    }
}

class DDFileLoggerFaults : public testing::Test {
protected:
    void SetUp() override
    {
        if (!mounts().skipReason.empty()) {
            GTEST_SKIP() << mounts().skipReason;
        }
        if (!mountFileSystems()) {
            const std::string reason = std::string("cannot mount the test file systems: ") + std::strerror(errno);
            unmountFileSystems();
            GTEST_SKIP() << reason;
        }
        ddlog_internal::resetFileLoggerExceptionCount();
    }
    void TearDown() override
    {
        if (mounts().skipReason.empty()) {
            unmountFileSystems();
        }
    }
    static DDFileLoggerRef rawLogger(const DDLogFileManagerRef& manager)
    {
        const auto logger = DDFileLogger::create(manager);
        logger->setLogFormatter(nullptr);
        DDLog::loggingQueue()->sync([] {});
        logger->loggerQueue()->sync([] {});
        return logger;
    }
};

TEST_F(DDFileLoggerFaults, AFullDiskLosesLinesReportsTenFailuresAndRecovers)
{
    const std::string directory = mounts().small + "/logs";
    const std::string filler = mounts().small + "/filler";
    testsupport::writeWholeFile(filler, std::string(24 * 1024, 'f'));
    const auto manager = testsupport::RollRecordingManager::make(directory);
    const auto logger = rawLogger(manager);

    testsupport::StandardErrorCapture console;
    const std::string chunk(8 * 1024, 'c');
    for (int message = 0; message < 20; ++message) {
        writeDirectly(logger, chunk);
    }
    console.restore();
    const std::string reported = console.text();
    EXPECT_GE(DDFileLogger::exceptionCount(), 11);
    // Ten failures are told, the tenth with the closing line; the rest are not.
    EXPECT_EQ(testsupport::countOccurrences(reported, "DDFileLogger.logMessage: "), 11u) << reported;
    EXPECT_EQ(testsupport::countOccurrences(reported, "Too many exceptions -- will not log any more of them.\n"), 1u);
    EXPECT_THAT(reported, HasSubstr("No space left on device"));

    // Room again: the logger is still there and writes.
    ASSERT_EQ(::unlink(filler.c_str()), 0);
    writeDirectly(logger, "recovered");
    const std::string text = readWholeFile(currentPath(logger));
    EXPECT_TRUE(text.ends_with("recovered\n"));
    EXPECT_TRUE(manager->rolledPaths().empty());
}

TEST_F(DDFileLoggerFaults, AReadOnlyDirectoryDropsMessagesUntilItIsWritable)
{
    const std::string directory = mounts().readOnly + "/logs";
    ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    ASSERT_EQ(::mount(nullptr, mounts().readOnly.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, "size=64k"), 0);
    const auto manager = testsupport::RollRecordingManager::make(directory);
    auto logger = rawLogger(manager);

    writeDirectly(logger, "lost");
    EXPECT_TRUE(manager->unsortedLogFilePaths().empty());
    // Nowhere to write: the logger has no file, and did not make one up.
    EXPECT_EQ(currentPath(logger).find(directory), 0u);
    EXPECT_FALSE(FileManager::fileExistsAtPath(currentPath(logger)));

    ASSERT_EQ(::mount(nullptr, mounts().readOnly.c_str(), nullptr, MS_REMOUNT, "size=64k"), 0);
    writeDirectly(logger, "kept");
    ASSERT_EQ(manager->unsortedLogFilePaths().size(), 1u);
    EXPECT_EQ(readWholeFile(manager->unsortedLogFilePaths().front()), "kept\n");

    // A directory that cannot even be made is said so on the console. (The
    // file system turns read-only only once no file is open for writing: the
    // logger closes its file when the last reference goes, which may be the
    // one its pending write on the logging queue holds.)
    logger.reset();
    DDLog::loggingQueue()->sync([] {});
    ASSERT_EQ(::mount(nullptr, mounts().readOnly.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, "size=64k"), 0);
    const auto elsewhere = DDFileLogger::create(testsupport::RollRecordingManager::make(mounts().readOnly + "/new"));
    testsupport::StandardErrorCapture console;
    writeDirectly(elsewhere, "lost");
    console.restore();
    EXPECT_THAT(console.text(), HasSubstr("DDFileLogManagerDefault: Error creating logsDirectory: "));
}

TEST_F(DDFileLoggerFaults, WithoutUserAttributesTheArchivedMarkIsTheName)
{
    const std::string directory = mounts().noAttributes + "/logs";
    const auto manager = testsupport::RollRecordingManager::make(directory);
    manager->setMaximumNumberOfLogFiles(2);
    auto logger = rawLogger(manager);

    testsupport::StandardErrorCapture console;
    std::vector<std::string> used;
    for (int file = 0; file < 4; ++file) {
        writeDirectly(logger, "file " + std::to_string(file));
        used.push_back(currentPath(logger));
        logger->rollLogFile();
        ASSERT_TRUE(manager->rolled.wait(file + 1));
        testsupport::waitForNewerFileTime(DDLogFileInfo::archivedFileName(used.back()));
    }
    writeDirectly(logger, "in use");
    const std::string inUse = currentPath(logger);
    logger.reset();  // the process ends

    const auto restarted = rawLogger(manager);
    writeDirectly(restarted, "restarted");
    console.restore();
    EXPECT_EQ(currentPath(restarted), inUse);
    EXPECT_EQ(readWholeFile(inUse), "in use\nrestarted\n");
    EXPECT_EQ(console.text(), "");  // nothing failed

    // Every rolled file carries the mark in its name; the oldest went when
    // the limit of two archived files was reached.
    std::vector<std::string> names = manager->sortedLogFileNames();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0], inUse.substr(inUse.rfind('/') + 1));
    for (std::size_t index = 1; index < names.size(); ++index) {
        EXPECT_TRUE(DDLogFileInfo::isArchivedFileName(names[index])) << names[index];
        EXPECT_TRUE(DDLogFileInfo::logFileWithPath(directory + "/" + names[index])->isArchived());
    }
    EXPECT_EQ(readWholeFile(DDLogFileInfo::archivedFileName(used[3])), "file 3\n");
    EXPECT_FALSE(FileManager::fileExistsAtPath(DDLogFileInfo::archivedFileName(used[0])));
}

}  // namespace

int main(int argc, char** argv)
{
    enterMountNamespace();
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    removeMountPoints();
    return status;
}
