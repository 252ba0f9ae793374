#include "Platform/Security/SecKeychain.h"

#include "Platform/FileSystem/FileManager.h"

#include "Platform/Security/KeychainCrypto.h"
#include "Platform/Security/KeychainFile.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

using security::KeychainFile;
using security::KeychainFileRef;
using security::OpenMode;

std::string absolutePath(std::string path)
{
    if (path.empty() || path.front() == '/') {
        return path;
    }
    std::string directory(4096, '\0');
    if (::getcwd(directory.data(), directory.size()) == nullptr) {
        return path;
    }
    directory.resize(std::strlen(directory.c_str()));
    return directory + (directory.back() == '/' ? "" : "/") + path;
}

OSStatus openExisting(const SecKeychainRef& keychain, KeychainFileRef* file, OpenMode mode)
{
    return keychain ? KeychainFile::open(keychain->path(), mode, file) : errSecParam;
}

// Makes this process forget the keychain's key, as on locking it. With
// `keychainOnly`, a file that was never given its tables is no keychain.
OSStatus forgetKeyOf(const SecKeychainRef& keychain, bool keychainOnly = false)
{
    KeychainFileRef file;
    if (const OSStatus status = openExisting(keychain, &file, OpenMode::Examine); status != errSecSuccess) {
        return status;
    }
    if (file->isUninitialised()) {
        return keychainOnly ? errSecInvalidKeychain : errSecSuccess;
    }
    security::forgetKey(file->identity());
    return errSecSuccess;
}

}  // namespace

std::shared_ptr<SecKeychain> SecKeychain::create(std::string path)
{
    return makeObject<SecKeychain>(absolutePath(std::move(path)));
}

std::string SecKeychain::description() const
{
    return "<SecKeychain " + addressString() + ": " + path_ + ">";
}

bool SecKeychain::isEqual(const Object& other) const
{
    const auto* keychain = dynamic_cast<const SecKeychain*>(&other);
    return keychain != nullptr && keychain->path_ == path_;
}

std::shared_ptr<SecKeychainItem> SecKeychainItem::create(std::string keychainPath, std::string fileIdentity,
                                                         std::int64_t row)
{
    return makeObject<SecKeychainItem>(std::move(keychainPath), std::move(fileIdentity), row);
}

bool SecKeychainItem::isEqual(const Object& other) const
{
    const auto* item = dynamic_cast<const SecKeychainItem*>(&other);
    return item != nullptr && item->row_ == row_ && item->fileIdentity_ == fileIdentity_ &&
           item->keychainPath_ == keychainPath_;
}

void SecKeychainPrepareForShortProcess()
{
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

void SecKeychainSetBusyWait(std::chrono::milliseconds limit)
{
    security::setBusyWait(limit);
}

void SecKeychainSetNoticeHandler(SecKeychainNoticeHandler handler)
{
    security::setNoticeHandler(handler);
}

std::string SecKeychainCopyRefusalReason()
{
    return security::lastRefusalReason();
}

std::string SecKeychainDefaultPath()
{
    return FileManager::pathForDirectory(SearchPathDirectory::ApplicationSupport) + "/keychains/login.keychain-db";
}

OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain)
{
    if (keychain == nullptr) {
        return errSecParam;
    }
    *keychain = SecKeychain::create(SecKeychainDefaultPath());
    return errSecSuccess;
}

OSStatus SecKeychainOpen(const char* pathName, SecKeychainRef* keychain)
{
    if (pathName == nullptr || *pathName == '\0' || keychain == nullptr) {
        return errSecParam;
    }
    *keychain = SecKeychain::create(pathName);
    return errSecSuccess;
}

OSStatus SecKeychainCreate(const char* pathName, std::uint32_t passwordLength, const void* password, bool promptUser,
                           const void* initialAccess, SecKeychainRef* keychain)
{
    if (pathName == nullptr || *pathName == '\0' || initialAccess != nullptr ||
        (passwordLength > 0 && password == nullptr)) {
        return errSecParam;
    }
    const std::string path = absolutePath(pathName);
    KeychainFileRef file;
    OSStatus status;
    if (passwordLength == 0 && promptUser) {
        status = KeychainFile::create(path, std::nullopt, nullptr, &file);
    } else {
        const auto derivation = security::KeyDerivation::generate();
        const auto key = security::SecretKey::derive(
            std::string_view(static_cast<const char*>(password), passwordLength), derivation);
        if (!key) {
            return errSecAllocate;
        }
        status = KeychainFile::create(path, derivation, key.get(), &file);
        if (status == errSecSuccess) {
            // The creator may use the keychain at once, as after an unlock.
            security::rememberKey(file->identity(), key);
        }
    }
    if (status == errSecSuccess && keychain != nullptr) {
        *keychain = SecKeychain::create(path);
    }
    return status;
}

OSStatus SecKeychainDelete(const SecKeychainRef& keychain)
{
    // Forgetting the key opens the file first, which also makes sure it is a
    // keychain: a wrong path must not cost the user an unrelated file, be it
    // empty or another program's database.
    if (const OSStatus status = forgetKeyOf(keychain, true); status != errSecSuccess) {
        return status;
    }
    KeychainFile::closeIdleConnections(keychain->path());
    if (::unlink(keychain->path().c_str()) != 0) {
        return errno == ENOENT ? errSecNoSuchKeychain : errSecWrPerm;
    }
    security::removeJournalFiles(keychain->path());
    return errSecSuccess;
}

OSStatus SecKeychainGetPath(const SecKeychainRef& keychain, std::uint32_t* ioPathLength, char* pathName)
{
    if (!keychain || ioPathLength == nullptr || pathName == nullptr) {
        return errSecParam;
    }
    const auto& path = keychain->path();
    if (path.size() + 1 > *ioPathLength) {
        return errSecParam;
    }
    std::memcpy(pathName, path.c_str(), path.size() + 1);
    *ioPathLength = static_cast<std::uint32_t>(path.size());
    return errSecSuccess;
}

OSStatus SecKeychainItemCopyKeychain(const SecKeychainItemRef& item, SecKeychainRef* keychain)
{
    if (!item || keychain == nullptr) {
        return errSecParam;
    }
    *keychain = SecKeychain::create(item->keychainPath());
    return errSecSuccess;
}

OSStatus SecKeychainUnlock(const SecKeychainRef& keychain, std::uint32_t passwordLength, const void* password,
                           bool usePassword)
{
    if (usePassword && passwordLength > 0 && password == nullptr) {
        return errSecParam;
    }
    // No secret is read here, so the user's own too-open file may be
    // unlocked: a write then makes it private, a read still refuses it.
    KeychainFileRef file;
    if (const OSStatus status = openExisting(keychain, &file, OpenMode::Examine); status != errSecSuccess) {
        return status;
    }
    if (!file->hasPassword()) {
        return errSecSuccess;
    }
    if (!usePassword) {
        return security::rememberedKey(file->identity()) ? errSecSuccess : errSecInteractionNotAllowed;
    }
    // Deriving the key takes a while; writers need not wait for it. What it
    // needs from the file has been read.
    file->rollback();
    const auto key = security::SecretKey::derive(
        std::string_view(static_cast<const char*>(password), passwordLength), *file->derivation());
    if (!key) {
        return errSecAllocate;
    }
    if (!file->verifiesKey(*key)) {
        return errSecAuthFailed;
    }
    security::rememberKey(file->identity(), key);
    return errSecSuccess;
}

OSStatus SecKeychainLock(const SecKeychainRef& keychain)
{
    return forgetKeyOf(keychain);
}

OSStatus SecKeychainGetStatus(const SecKeychainRef& keychain, SecKeychainStatus* status)
{
    if (status == nullptr) {
        return errSecParam;
    }
    KeychainFileRef file;
    if (const OSStatus opened = openExisting(keychain, &file, OpenMode::Examine); opened != errSecSuccess) {
        return opened;
    }
    status->hasPassword = file->hasPassword();
    status->isUnlocked = !file->hasPassword() || security::rememberedKey(file->identity()) != nullptr;
    return errSecSuccess;
}

}  // namespace platform
