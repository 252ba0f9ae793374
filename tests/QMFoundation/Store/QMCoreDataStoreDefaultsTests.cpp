// Where a store is found when the application gives nothing, and how a
// coordinator is set up over it.
#include "QMFoundation/Store/NSManagedObjectModel+QMCoreData.h"
#include "QMFoundation/Store/NSPersistentStoreCoordinator+QMCoreData.h"
#include "QMFoundation/Store/QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreDefaults.h"
#include "tests/QMFoundation/Store/StoreTestBundle.h"
#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>

using platform::NSInMemoryStoreType;
using platform::NSSQLiteStoreType;
using platform::NSXMLStoreType;

namespace {

// Points the user's application-support directory at a temporary directory
// for the life of the test.
class ApplicationSupportHere {
public:
    ApplicationSupportHere()
    {
        if (const char* previous = std::getenv("XDG_DATA_HOME")) {
            previous_ = previous;
        }
        setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
    }
    ~ApplicationSupportHere()
    {
        if (previous_) {
            setenv("XDG_DATA_HOME", previous_->c_str(), 1);
        } else {
            unsetenv("XDG_DATA_HOME");
        }
    }
    const std::string& path() const { return directory_.path(); }

private:
    testsupport::TemporaryDirectory directory_;
    std::optional<std::string> previous_;
};

}  // namespace

TEST(QMCoreDataStoreDefaults, NamesComeFromTheBundleNameOrTheIdentifiersLastPart)
{
    struct Row {
        const char* info;
        const char* name;
    };
    for (const Row& row : {
             Row{R"({"CFBundleIdentifier": "a.b.c"})", "c"},
             Row{R"({"CFBundleName": "Notes", "CFBundleIdentifier": "a.b.c"})", "Notes"},
             Row{R"({"CFBundleIdentifier": "plain"})", "plain"},
         }) {
        SCOPED_TRACE(row.info);
        const storetest::SampleBundle sample(row.info);
        const auto defaults = QMCoreDataStoreDefaults::create();
        defaults->setDefaultBundle(sample.bundle());
        EXPECT_EQ(defaults->defaultManagedObjectModelName(), row.name);
        EXPECT_EQ(defaults->defaultStoreName(), row.name);
    }
}

TEST(QMCoreDataStoreDefaults, ABundleWithoutNameOrIdentifierIsAnAssertion)
{
    const storetest::SampleBundle sample("{}");
    const auto defaults = QMCoreDataStoreDefaults::create();
    defaults->setDefaultBundle(sample.bundle());
    EXPECT_EQ(testsupport::captureAssertion([&] { (void)defaults->bundleName(); }).description,
              "Unable to determine bundle name");
    EXPECT_EQ(testsupport::captureAssertion([&] { (void)defaults->bundleIdentifier(); }).description,
              "Unable to determine bundle identifier");
}

TEST(QMCoreDataStoreDefaults, ValuesAreKeptOnceReadAndMadeAgainAfterBeingCleared)
{
    const storetest::SampleBundle sample;
    const auto defaults = QMCoreDataStoreDefaults::create();
    defaults->setDefaultBundle(sample.bundle());
    defaults->setDefaultStoreName(std::string("Mine"));
    EXPECT_EQ(defaults->defaultStoreName(), "Mine");
    defaults->setDefaultStoreName(std::nullopt);
    EXPECT_EQ(defaults->defaultStoreName(), "Sample");
}

TEST(QMCoreDataStoreDefaults, ExtensionsAndOptionsByStoreType)
{
    const auto defaults = QMCoreDataStoreDefaults::create();
    EXPECT_EQ(defaults->defaultExtensionForStoreType(std::string(NSSQLiteStoreType)), "sqlite3");
    EXPECT_EQ(defaults->defaultExtensionForStoreType(std::string(NSXMLStoreType)), "xml");
    EXPECT_EQ(defaults->defaultExtensionForStoreType(std::string(NSInMemoryStoreType)), std::nullopt);

    const auto extensions = defaults->allDefaultStoreExtensions();
    defaults->setDefaultExtension(std::nullopt, std::string(NSXMLStoreType));
    EXPECT_EQ(defaults->defaultExtensionForStoreType(std::string(NSXMLStoreType)), "") << "the row stays, empty";
    EXPECT_EQ(extensions.get(NSXMLStoreType), platform::Value("xml"));

    defaults->setDefaultStoreOptions(platform::Dictionary{{"journal", "wal"}}, std::string(NSSQLiteStoreType));
    const auto options = defaults->allDefaultStoreOptions();
    defaults->setDefaultStoreOptions(std::nullopt, std::string(NSSQLiteStoreType));
    EXPECT_EQ(defaults->defaultStoreOptionsForStoreType(std::string(NSSQLiteStoreType)), std::nullopt)
        << "unlike the extension, no options remove the row";
    EXPECT_TRUE(defaults->allDefaultStoreOptions().empty());
    EXPECT_TRUE(options.contains(NSSQLiteStoreType));

    EXPECT_EQ(testsupport::captureAssertion([&] { (void)defaults->defaultStoreOptionsForStoreType(std::nullopt); })
                  .description,
              "Invalid parameter not satisfying: storeType");
}

TEST(QMCoreDataStoreDefaults, FileStoresLieUnderApplicationSupportByBundleIdentifier)
{
    const ApplicationSupportHere support;
    const storetest::SampleBundle sample;
    const auto defaults = QMCoreDataStoreDefaults::create();
    defaults->setDefaultBundle(sample.bundle());
    struct Row {
        std::string_view type;
        std::optional<std::string> file;
    };
    for (const Row& row : {Row{NSSQLiteStoreType, "a.b.Sample/Sample.sqlite3"}, Row{NSXMLStoreType, "a.b.Sample/Sample.xml"},
                           Row{NSInMemoryStoreType, std::nullopt}}) {
        SCOPED_TRACE(row.type);
        const auto store = QMCoreDataStore::defaultStoreWithStoreType(row.type, *defaults);
        EXPECT_FALSE(store->isInitialized());
        EXPECT_EQ(store->managedObjectModelURL(), sample.modelURL());
        if (row.file) {
            ASSERT_TRUE(store->storeURL());
            EXPECT_EQ(store->storeURL()->path(), support.path() + "/" + *row.file);
        } else {
            EXPECT_FALSE(store->storeURL());
        }
    }
}

TEST(QMCoreDataStoreDefaults, AMissingModelResourceNamesTheBundleIdentifier)
{
    const storetest::SampleBundle sample;
    const auto defaults = QMCoreDataStoreDefaults::create();
    defaults->setDefaultBundle(sample.bundle());
    defaults->setDefaultManagedObjectModelName(std::string("Elsewhere"));
    EXPECT_EQ(testsupport::captureAssertion([&] {
                  QMCoreDataStore::defaultStoreWithStoreType(NSInMemoryStoreType, *defaults);
              }).description,
              "Could not find resource a.b.Sample.momd in default bundle");
    EXPECT_EQ(testsupport::captureAssertion([&] { managedObjectModelWithName("Elsewhere", *sample.bundle()); })
                  .description,
              "Core Data object model not found at URL (null)");
}

TEST(NSPersistentStoreCoordinatorQMCoreData, AFileInTheDirectorysPlaceFailsOnlyWhenTheStoreIsAdded)
{
    const storetest::SampleBundle sample;
    storetest::writeFile(sample.path("occupied"), "not a directory");
    const auto storeURL = platform::URL::fileURLWithPath(sample.path("occupied/Sample.sqlite3"));
    platform::ErrorRef error;
    EXPECT_TRUE(createDirectoryIfNeededForStoreAtURL(storeURL, &error));
    const auto model = managedObjectModelWithName("Sample", *sample.bundle());
    EXPECT_EQ(persistentStoreCoordinatorWithManagedObjectModel(model, std::string(NSSQLiteStoreType), storeURL,
                                                               std::nullopt, &error),
              nullptr);
    EXPECT_NE(error, nullptr);
}

TEST(NSPersistentStoreCoordinatorQMCoreData, MakesMissingDirectoriesButNoneForAnInMemoryStore)
{
    const storetest::SampleBundle sample;
    const auto model = managedObjectModelWithName("Sample", *sample.bundle());
    const auto storeURL = platform::URL::fileURLWithPath(sample.path("deep/er/Sample.sqlite3"));
    EXPECT_NE(persistentStoreCoordinatorWithManagedObjectModel(model, std::string(NSInMemoryStoreType), storeURL,
                                                               std::nullopt),
              nullptr);
    EXPECT_FALSE(platform::FileManager::fileExistsAtPath(sample.path("deep")));
    EXPECT_NE(persistentStoreCoordinatorWithManagedObjectModel(model, std::string(NSSQLiteStoreType), storeURL,
                                                               std::nullopt),
              nullptr);
    EXPECT_TRUE(platform::FileManager::fileExistsAtPath(sample.path("deep/er/Sample.sqlite3")));
    EXPECT_EQ(testsupport::captureAssertion([&] {
                  (void)persistentStoreCoordinatorWithManagedObjectModel(model, std::string(NSXMLStoreType),
                                                                         std::nullopt, std::nullopt);
              }).description,
              "Invalid parameter not satisfying: storeURL");
}
