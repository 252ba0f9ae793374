// FetchRequest: which objects of an entity a fetch or a count asks for.
//
//   auto request = FetchRequest::fetchRequestWithEntityName("Person");
//   request->setPredicate(Predicate::predicateWithFormat("age > %@", {30}));
//   request->setSortDescriptors({SortDescriptor::create("name", true)});
//   request->setFetchLimit(10);
//   auto people = context->executeFetchRequest(*request, &error);
//
// A request is a plain description: it is not tied to a context, and it may be
// built on one thread and used on another, but not changed while a fetch
// uses it. The predicate and sort descriptors are immutable objects of
// Platform/Predicates, shared, never copied.
#pragma once

#include "Platform/Foundation/Object.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace platform {

class Predicate;
class SortDescriptor;

enum class FetchRequestResultType {
    ManagedObject,    // objects (faults unless returnsObjectsAsFaults is false)
    ManagedObjectID,  // their IDs only
};

class FetchRequest final : public Object {
public:
    using PredicateRef = std::shared_ptr<const Predicate>;
    using SortDescriptorRef = std::shared_ptr<const SortDescriptor>;

    static std::shared_ptr<FetchRequest> fetchRequestWithEntityName(std::string entityName);

    const std::string& entityName() const { return entityName_; }

    // Nothing: every object of the entity.
    const PredicateRef& predicate() const { return predicate_; }
    void setPredicate(PredicateRef predicate) { predicate_ = std::move(predicate); }

    // Applied in order; without any, the order of the results is not defined.
    const std::vector<SortDescriptorRef>& sortDescriptors() const { return sortDescriptors_; }
    void setSortDescriptors(std::vector<SortDescriptorRef> descriptors) { sortDescriptors_ = std::move(descriptors); }

    // 0: no limit.
    std::size_t fetchLimit() const { return fetchLimit_; }
    void setFetchLimit(std::size_t limit) { fetchLimit_ = limit; }
    // Objects skipped before the first result.
    std::size_t fetchOffset() const { return fetchOffset_; }
    void setFetchOffset(std::size_t offset) { fetchOffset_ = offset; }

    FetchRequestResultType resultType() const { return resultType_; }
    void setResultType(FetchRequestResultType type) { resultType_ = type; }

    // Whether a context's unsaved inserts, changes and deletes take part
    // (true by default). A store ignores it: it sees only saved data.
    bool includesPendingChanges() const { return includesPendingChanges_; }
    void setIncludesPendingChanges(bool include) { includesPendingChanges_ = include; }

    // Whether fetched objects that are not yet loaded come back as faults
    // (true by default) or are filled at once.
    bool returnsObjectsAsFaults() const { return returnsObjectsAsFaults_; }
    void setReturnsObjectsAsFaults(bool faults) { returnsObjectsAsFaults_ = faults; }

    std::string className() const override { return "NSFetchRequest"; }
    std::string description() const override;

private:
    template <class> friend struct ObjectAllocator;
    explicit FetchRequest(std::string entityName) : entityName_(std::move(entityName)) {}

    std::string entityName_;
    PredicateRef predicate_;
    std::vector<SortDescriptorRef> sortDescriptors_;
    std::size_t fetchLimit_ = 0;
    std::size_t fetchOffset_ = 0;
    FetchRequestResultType resultType_ = FetchRequestResultType::ManagedObject;
    bool includesPendingChanges_ = true;
    bool returnsObjectsAsFaults_ = true;
};

using FetchRequestRef = std::shared_ptr<FetchRequest>;

}  // namespace platform
