// QMCoreDataStoreDefaults: the values from which a store is located and built
// when the caller does not give them, one shared object per process.
//
// Defaults, each made on first read and kept from then on (set a property to
// nothing and the next read makes it again):
//   defaultBundle                   the main bundle (Platform/Bundle)
//   defaultManagedObjectModelName   bundleName
//   defaultStoreName                bundleName
//   defaultStoreDirectoryURL        <application support>/<bundle identifier>
// where application support is ${XDG_DATA_HOME:-$HOME/.local/share}. So the
// SQLite store of a bundle "a.b.Sample" lies at
// ~/.local/share/a.b.Sample/Sample.sqlite3.
//
// Two tables by store type: file-name extensions (SQLite "sqlite3", XML
// "xml"; the in-memory type has none) and store options (empty: no migration
// options unless the application registers them). Setting no extension keeps
// the row with ""; setting no options removes the row.
//
// Threading: `sharedDefaults` may be called from any thread; the values are
// not locked and are meant to be configured once at start, before the first
// store is made.
#pragma once

#include "Platform/Bundle/Bundle.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <memory>
#include <optional>
#include <string>

class QMCoreDataStoreDefaults : public platform::Object {
public:
    static std::shared_ptr<QMCoreDataStoreDefaults> sharedDefaults();
    // A separate instance, for tests and for applications with more than one
    // set of defaults; `sharedDefaults` is the one the store reads.
    static std::shared_ptr<QMCoreDataStoreDefaults> create();

    platform::BundleRef defaultBundle();
    void setDefaultBundle(platform::BundleRef bundle) { defaultBundle_ = std::move(bundle); }
    std::optional<std::string> defaultManagedObjectModelName();
    void setDefaultManagedObjectModelName(std::optional<std::string> name) { modelName_ = std::move(name); }
    std::optional<std::string> defaultStoreName();
    void setDefaultStoreName(std::optional<std::string> name) { storeName_ = std::move(name); }
    std::optional<platform::URL> defaultStoreDirectoryURL();
    void setDefaultStoreDirectoryURL(std::optional<platform::URL> url) { storeDirectoryURL_ = std::move(url); }
    // Kept for the application; nothing in the library reads it.
    const platform::Value& defaultMergePolicy() const { return defaultMergePolicy_; }
    void setDefaultMergePolicy(platform::Value policy) { defaultMergePolicy_ = std::move(policy); }

    // Nothing for an unknown type and for the in-memory type.
    std::optional<std::string> defaultExtensionForStoreType(const std::optional<std::string>& storeType) const;
    void setDefaultExtension(const std::optional<std::string>& extension, const std::optional<std::string>& storeType);
    platform::Dictionary allDefaultStoreExtensions() const { return extensionByType_; }

    std::optional<platform::Dictionary> defaultStoreOptionsForStoreType(const std::optional<std::string>& storeType) const;
    void setDefaultStoreOptions(const std::optional<platform::Dictionary>& options,
                                const std::optional<std::string>& storeType);
    platform::Dictionary allDefaultStoreOptions() const { return optionsByType_; }

    virtual std::optional<std::string> makeDefaultManagedObjectModelName();
    virtual std::optional<std::string> makeDefaultStoreName();
    virtual std::optional<platform::URL> makeDefaultStoreDirectoryURL();

    // "CFBundleName", else the last "."-separated part of "CFBundleIdentifier";
    // an assertion when the bundle has neither.
    std::optional<std::string> bundleName();
    // "CFBundleIdentifier"; an assertion when it is missing.
    std::optional<std::string> bundleIdentifier();

    std::string className() const override { return "QMCoreDataStoreDefaults"; }

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStoreDefaults();

private:
    platform::BundleRef defaultBundle_;
    std::optional<std::string> modelName_;
    std::optional<std::string> storeName_;
    std::optional<platform::URL> storeDirectoryURL_;
    platform::Value defaultMergePolicy_;
    platform::Dictionary extensionByType_;
    platform::Dictionary optionsByType_;
};

using QMCoreDataStoreDefaultsRef = std::shared_ptr<QMCoreDataStoreDefaults>;
