// QMKeychain: one keychain, either the user's default search list (a null
// keychain reference) or one keychain file, and the look-ups and additions
// made through it.
//
//   ErrorRef error;
//   auto item = QMKeychain::defaultKeychain()->findInternetPasswordForURL(*URL::fromString("https://jo@host"), &error);
//   if (item) use(item->password());   // not found: nothing, and error is nothing too
//
// Look-ups that find nothing return nothing (or an empty list) and are not
// failures; other keychain statuses come back as QMKeychainErrorDomain errors.
// Objects are used from the calling thread; the keychain services below them
// serialise access between threads and processes.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Security/SecKeychain.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class QMKeychain;
class QMInternetPasswordKeychainItem;
class QMGenericPasswordKeychainItem;
using QMKeychainRef = std::shared_ptr<QMKeychain>;
using QMInternetPasswordKeychainItemRef = std::shared_ptr<QMInternetPasswordKeychainItem>;
using QMGenericPasswordKeychainItemRef = std::shared_ptr<QMGenericPasswordKeychainItem>;

class QMKeychain : public platform::Object {
public:
    // The process-wide keychain standing for the default search list,
    // created on the first call.
    static QMKeychainRef defaultKeychain();
    // `init`: a new object for the default search list.
    static QMKeychainRef create();
    // A new object for the keychain; a null reference means the default
    // search list. A keychain whose path cannot be read raises
    // "NSInternalInconsistencyException".
    static QMKeychainRef keychainWithKeychainRef(platform::SecKeychainRef keychainRef);
    // Creates a keychain file (password-protected when a password is given;
    // otherwise protected only by its file mode). A missing path is a
    // programming error.
    [[nodiscard]] static QMKeychainRef keychainWithPath(const std::optional<std::string>& path,
                                         const std::optional<std::string>& password,
                                         platform::ErrorRef* error = nullptr);
    // True for exactly "ftp", "ftps", "http", "https" and "ssh".
    static bool supportsProtocol(const std::optional<std::string>& protocol);

    // The class-level look-ups, over the default search list. (They cannot
    // share the instance operations' names in C++.)
    [[nodiscard]] static QMInternetPasswordKeychainItemRef findInternetPasswordForURLInSearchList(
        const platform::URL& url, platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswordsForURLInSearchList(
        const std::optional<platform::URL>& url, platform::ErrorRef* error = nullptr);
    [[nodiscard]] static QMGenericPasswordKeychainItemRef findGenericPasswordItemForAccountInSearchList(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        platform::ErrorRef* error = nullptr);

    // Null for the default search list. The object does not own the
    // keychain: the file stays until destroy().
    const platform::SecKeychainRef& keychainRef() const { return keychainRef_; }
    // The keychain file's path; nothing for the default search list.
    const std::optional<std::string>& path() const { return path_; }
    void setPath(std::optional<std::string> path) { path_ = std::move(path); }
    bool isDefaultKeychain() const { return keychainRef_ == nullptr; }

    [[nodiscard]] QMInternetPasswordKeychainItemRef findInternetPasswordForURL(const platform::URL& url,
                                                                 platform::ErrorRef* error = nullptr);
    [[nodiscard]] std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswordsForURL(
        const std::optional<platform::URL>& url, platform::ErrorRef* error = nullptr);
    // Every internet password of this keychain stored without a port: the
    // look-up above with no URL.
    [[nodiscard]] std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswords(
        platform::ErrorRef* error = nullptr);
    [[nodiscard]] std::optional<std::vector<QMGenericPasswordKeychainItemRef>> findAllGenericPasswords(
        platform::ErrorRef* error = nullptr);
    [[nodiscard]] QMGenericPasswordKeychainItemRef findGenericPasswordItemForAccount(const std::optional<std::string>& account,
                                                                       const std::optional<std::string>& service,
                                                                       platform::ErrorRef* error = nullptr);

    [[nodiscard]] QMInternetPasswordKeychainItemRef addInternetPasswordWithURL(const platform::URL& url,
                                                                 const std::optional<std::string>& password,
                                                                 platform::ErrorRef* error = nullptr);
    [[nodiscard]] QMInternetPasswordKeychainItemRef createOrUpdateInternetPasswordWithURL(
        const platform::URL& url, const std::optional<std::string>& password, platform::ErrorRef* error = nullptr);
    [[nodiscard]] QMGenericPasswordKeychainItemRef addGenericPasswordWithAccount(const std::optional<std::string>& account,
                                                                   const std::optional<std::string>& service,
                                                                   const std::optional<std::string>& password,
                                                                   platform::ErrorRef* error = nullptr);
    [[nodiscard]] QMGenericPasswordKeychainItemRef createOrUpdateGenericPasswordWithAccount(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        const std::optional<std::string>& password, platform::ErrorRef* error = nullptr);

    // Deletes the keychain file. The default search list cannot be deleted:
    // that raises "NSInvalidArgumentException".
    [[nodiscard]] bool destroy(platform::ErrorRef* error = nullptr);

    std::string className() const override { return "QMKeychain"; }
    std::string description() const override;
    const platform::PropertyTable& propertyTable() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit QMKeychain(platform::SecKeychainRef keychainRef);
    QMKeychainRef self();

    platform::SecKeychainRef keychainRef_;
    std::optional<std::string> path_;
};
