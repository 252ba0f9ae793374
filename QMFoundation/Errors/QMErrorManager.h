// QMErrorManager: error tables by domain, and errors made from them.
//
//   QMErrorManager::sharedManager()->addErrorDefinitions(definitions, "com.example.sync");
//   auto error = QMErrorManager::sharedManager()->errorWithDomain("com.example.sync", 7,
//                                                                Dictionary{{"quota", "2 GB"}});
//
// Definitions are only ever added. The first one registered for a code wins;
// later duplicates are kept but never found. The table is guarded by a lock,
// so registration and look-up may come from any thread, though an
// application normally registers everything at start-up.
#pragma once

#include "QMFoundation/Errors/QMErrorDefinition.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class QMErrorManager;
using QMErrorManagerRef = std::shared_ptr<QMErrorManager>;

class QMErrorManager : public platform::Object {
public:
    // The process-wide manager, made on first use and kept until exit.
    static QMErrorManagerRef sharedManager();
    // A manager of its own, with an empty table.
    static QMErrorManagerRef manager();

    // Each element must be a definition dictionary; missing arguments are
    // programming errors ("errorDefinitions", "errorDomain").
    void addErrorDefinitions(const std::optional<platform::Array>& errorDefinitions,
                             const std::optional<std::string>& errorDomain);
    // Missing arguments are programming errors ("errorDefinition", "errorDomain").
    void addErrorDefinition(const std::optional<platform::Dictionary>& errorDefinition,
                            const std::optional<std::string>& errorDomain);

    // The first definition registered for (domain, code), or nothing.
    QMErrorDefinitionRef errorDefinitionForDomain(std::string_view domain, std::int64_t code) const;

    // A snapshot of the table: domain -> definitions in registration order,
    // domains in the order of their first registration.
    std::vector<std::pair<std::string, std::vector<QMErrorDefinitionRef>>> allErrorDefinitionsByDomain() const;

    // An error whose localized description and failure reason come from the
    // registered definition, filled from `userInfo`; entries of `userInfo`
    // override them. A failure reason doubles as the recovery suggestion when
    // none is given. Unregistered domains and codes still give an error.
    platform::ErrorRef errorWithDomain(std::string_view domain, std::int64_t code,
                                       const std::optional<platform::Dictionary>& userInfo = std::nullopt) const;

    std::string className() const override { return "QMErrorManager"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMErrorManager() = default;

    mutable std::mutex tableMutex_;  // guards errorDefinitionsByDomain_
    std::vector<std::pair<std::string, std::vector<QMErrorDefinitionRef>>> errorDefinitionsByDomain_;
};
