// SecKeychain: keychain files, their references, and the references of the
// items inside them.
//
// A keychain is an SQLite database file. The user's default keychain is
// "${XDG_DATA_HOME:-$HOME/.local/share}/keychains/login.keychain-db", resolved
// at each call, so a process that changes XDG_DATA_HOME sees another one. It
// is created (mode 0600, in a directory of mode 0700) by the first write that
// needs it, never by a read; while it is missing it searches as empty.
//
// A keychain created with a password keeps every secret encrypted with a key
// derived from that password. It starts locked in every process except the
// one that created it; SecKeychainUnlock opens it for the rest of the
// process. A keychain without a password is protected by its file mode alone.
//
// So a keychain file is used only while no other user can read or replace
// it: it must belong to this user (or root) and be writable by no one else,
// and so must every directory above it, up to "/", unless the directory has
// the sticky bit (as /tmp does), which keeps others from renaming what they
// do not own. The directories are those the file really lies in, symbolic
// links resolved. A file readable by others is refused as well, unless
// ZARVO_KEYCHAIN_ALLOW_READABLE=1 is set. A refused file answers
// errSecUnprotectedKeychain, and SecKeychainCopyRefusalReason says why. A
// write to the user's own file whose mode is too open makes it 0600 instead,
// and says so through the notice handler.
//
// Only files whose schema is exactly the one this layer makes are opened:
// no views, triggers or other tables (errSecInvalidKeychain otherwise), and
// no single step of a statement may run unbounded.
//
// All functions are safe to call from several threads and processes at once.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Security/SecBase.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

// A keychain file, named by its absolute path. References are values: two
// references to the same path are equal, and a reference stays valid (if
// useless) after its file is deleted.
class SecKeychain final : public Object {
public:
    static std::shared_ptr<SecKeychain> create(std::string path);

    const std::string& path() const { return path_; }

    std::string className() const override { return "SecKeychain"; }
    std::string description() const override;
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    explicit SecKeychain(std::string path) : path_(std::move(path)) {}

    std::string path_;
};
using SecKeychainRef = std::shared_ptr<SecKeychain>;

// An item of a keychain: the keychain's path, the file's identity and the
// item's row. A reference to an item of a file that was since replaced, or
// to a deleted item, matches nothing.
class SecKeychainItem final : public Object {
public:
    static std::shared_ptr<SecKeychainItem> create(std::string keychainPath, std::string fileIdentity,
                                                   std::int64_t row);

    const std::string& keychainPath() const { return keychainPath_; }
    const std::string& fileIdentity() const { return fileIdentity_; }
    std::int64_t row() const { return row_; }

    std::string className() const override { return "SecKeychainItem"; }
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    SecKeychainItem(std::string keychainPath, std::string fileIdentity, std::int64_t row)
        : keychainPath_(std::move(keychainPath)), fileIdentity_(std::move(fileIdentity)), row_(row) {}

    std::string keychainPath_;
    std::string fileIdentity_;
    std::int64_t row_;
};
using SecKeychainItemRef = std::shared_ptr<SecKeychainItem>;

// For a program that makes a look-up or two and exits, as the responder does
// (an addition of ours). SQLite's defaults suit long-lived connections: a slab
// of lookaside memory and a bulk of page-cache slots prepared per connection,
// and allocation statistics kept under a lock. After this call a look-up
// touches only the memory it uses, and each first touch of a page costs a
// fault. It changes SQLite for the whole process, so call it first thing,
// before anything opens a database; a long-lived application does not.
void SecKeychainPrepareForShortProcess();

// How long an operation waits for a keychain that another program holds
// (a write being committed, a program that locked the file) before it
// answers errSecNotAvailable: 30 seconds unless set. The responder, which
// must never stall its caller, sets a short wait. For the whole process.
void SecKeychainSetBusyWait(std::chrono::milliseconds limit);

// Receives the one-line notes meant for the user: that an operation has
// waited a second for a busy keychain (once per process), and that a write
// made a too-open keychain file private. Lines name the file, never a
// secret. None is installed by default. Set it first thing, before any
// keychain is used; it may be called from any thread that uses a keychain.
using SecKeychainNoticeHandler = void (*)(const std::string& line);
void SecKeychainSetNoticeHandler(SecKeychainNoticeHandler handler);

// Why the last operation of this thread answered errSecUnprotectedKeychain:
// one line naming the file or directory and its fault ("... can be read by
// others (mode 0644) ..."). Empty while none has.
std::string SecKeychainCopyRefusalReason();

// The path of the user's default keychain under the current environment.
std::string SecKeychainDefaultPath();

// A reference to the default keychain; the file need not exist.
[[nodiscard]] OSStatus SecKeychainCopyDefault(SecKeychainRef* keychain);

// A reference to the keychain at `pathName`; the file need not exist yet
// (operations on it then answer errSecNoSuchKeychain).
[[nodiscard]] OSStatus SecKeychainOpen(const char* pathName, SecKeychainRef* keychain);

// Creates a keychain file at `pathName` (missing directories are made with
// mode 0700). A password of `passwordLength` bytes protects its secrets. With
// no password bytes, `promptUser` asks for a keychain without a password (this
// system never prompts); `promptUser` false with an empty password protects it
// with the empty password. `initialAccess` is reserved and must be null.
// errSecDuplicateKeychain when a file is already there.
[[nodiscard]] OSStatus SecKeychainCreate(const char* pathName, std::uint32_t passwordLength, const void* password,
                           bool promptUser, const void* initialAccess, SecKeychainRef* keychain);

// Removes the keychain file (and its journal files) and forgets its key.
// Only a keychain is removed: an empty file, a database without this
// layer's tables or anything else answers errSecInvalidKeychain and stays.
// A too-open mode of the user's own file is no reason to keep it.
[[nodiscard]] OSStatus SecKeychainDelete(const SecKeychainRef& keychain);

// Copies the NUL-terminated path into `pathName`, whose size `*ioPathLength`
// gives; on return `*ioPathLength` is the path's length without the NUL.
// errSecParam when the buffer is too small.
[[nodiscard]] OSStatus SecKeychainGetPath(const SecKeychainRef& keychain, std::uint32_t* ioPathLength, char* pathName);

// The keychain that holds an item.
[[nodiscard]] OSStatus SecKeychainItemCopyKeychain(const SecKeychainItemRef& item, SecKeychainRef* keychain);

// Unlocks a password-protected keychain for the rest of this process:
// errSecAuthFailed for a wrong password, success at once for a keychain
// without a password. An addition of this system: it never prompts, so
// `usePassword` false answers errSecInteractionNotAllowed for a locked one.
[[nodiscard]] OSStatus SecKeychainUnlock(const SecKeychainRef& keychain, std::uint32_t passwordLength, const void* password,
                           bool usePassword);
// Forgets the key of a keychain in this process.
[[nodiscard]] OSStatus SecKeychainLock(const SecKeychainRef& keychain);

struct SecKeychainStatus {
    bool hasPassword = false;
    bool isUnlocked = false;
};
// Whether a keychain is password-protected and unlocked in this process.
[[nodiscard]] OSStatus SecKeychainGetStatus(const SecKeychainRef& keychain, SecKeychainStatus* status);

}  // namespace platform
