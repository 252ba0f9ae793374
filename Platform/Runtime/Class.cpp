#include "Platform/Runtime/Class.h"

#include "Platform/Foundation/Exception.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace platform {
namespace {

class Registry {
public:
    const Class* find(std::string_view name) const
    {
        std::shared_lock lock(mutex_);
        return findLocked(name);
    }

    const Class& add(std::unique_ptr<Class> cls, const std::string& superclassName)
    {
        std::unique_lock lock(mutex_);
        if (findLocked(cls->name()) != nullptr) {
            lock.unlock();
            Exception::raise(NSInternalInconsistencyException, "Class " + cls->name() + " is registered twice");
        }
        // Every class already registered has an acyclic chain, so a cycle
        // through the new class must come back to its own name.
        for (std::string_view ancestor = superclassName; !ancestor.empty();) {
            if (ancestor == cls->name()) {
                lock.unlock();
                Exception::raise(NSInternalInconsistencyException,
                                 "Class " + cls->name() + " would be its own superclass");
            }
            const Class* known = findLocked(ancestor);
            ancestor = known != nullptr ? std::string_view(superclassNames_.at(known->name())) : std::string_view();
        }
        superclassNames_.emplace(cls->name(), superclassName);
        const std::string name = cls->name();
        const Class& added = *classes_.emplace(name, std::move(cls)).first->second;
        // Raised after the class is findable, under the lock: whoever reads
        // the old count before a look-up either finds the class or sees the
        // count move on.
        generation_.fetch_add(1, std::memory_order_release);
        return added;
    }

    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

    std::vector<const Class*> all() const
    {
        std::shared_lock lock(mutex_);
        std::vector<const Class*> list;
        list.reserve(classes_.size());
        for (const auto& [name, cls] : classes_) {
            list.push_back(cls.get());
        }
        return list;
    }

private:
    const Class* findLocked(std::string_view name) const
    {
        const auto found = classes_.find(name);
        return found != classes_.end() ? found->second.get() : nullptr;
    }

    mutable std::shared_mutex mutex_;  // guards both maps
    std::atomic<std::uint64_t> generation_{0};
    std::map<std::string, std::unique_ptr<Class>, std::less<>> classes_;
    std::map<std::string, std::string, std::less<>> superclassNames_;
};

// Made on first use, by whichever static registration comes first, and never
// destroyed, so look-ups from other static destructors stay valid at exit.
Registry& registry()
{
    static auto* const instance = new Registry();
    return *instance;
}

// The classes of values that are not objects. Registered here, in the file
// that every look-up links, so they can never be left out by the linker.
const ClassRegistration rootClass = ClassDescription("NSObject");
const ClassRegistration valueClasses[] = {
    ClassDescription("NSNull").superclass("NSObject"),
    ClassDescription("NSNumber").superclass("NSObject"),
    ClassDescription("NSString").superclass("NSObject"),
    ClassDescription("NSData").superclass("NSObject"),
    ClassDescription("NSDate").superclass("NSObject"),
    ClassDescription("NSURL").superclass("NSObject"),
    ClassDescription("NSArray").superclass("NSObject"),
    ClassDescription("NSDictionary").superclass("NSObject"),
    ClassDescription("NSSet").superclass("NSObject"),
    ClassDescription("NSOrderedSet").superclass("NSObject"),
    ClassDescription("NSError").superclass("NSObject"),
};

std::string_view valueClassName(Value::Kind kind)
{
    switch (kind) {
    case Value::Kind::Null: return "NSNull";
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::Double: return "NSNumber";
    case Value::Kind::String: return "NSString";
    case Value::Kind::Data: return "NSData";
    case Value::Kind::Date: return "NSDate";
    case Value::Kind::URL: return "NSURL";
    case Value::Kind::Array: return "NSArray";
    case Value::Kind::Dictionary: return "NSDictionary";
    case Value::Kind::Set: return "NSSet";
    case Value::Kind::OrderedSet: return "NSOrderedSet";
    case Value::Kind::Nothing:
    case Value::Kind::Error:
    case Value::Kind::Object: break;
    }
    return {};
}

}  // namespace

Class::Class(ClassDescription description)
    : name_(std::move(description.name_)),
      superclassName_(std::move(description.superclassName_)),
      factory_(std::move(description.factory_)),
      operations_(std::move(description.operations_))
{
}

const Class* Class::superclass() const
{
    if (const Class* known = superclass_.load(std::memory_order_acquire)) {
        return known;
    }
    if (superclassName_.empty()) {
        return nullptr;
    }
    const Class* found = classFromString(superclassName_);
    if (found != nullptr) {
        superclass_.store(found, std::memory_order_release);
    }
    return found;
}

bool Class::isSubclassOfClass(const Class& other) const
{
    for (const Class* cls = this; cls != nullptr; cls = cls->superclass()) {
        if (cls == &other) {
            return true;
        }
    }
    return false;
}

ObjectRef Class::makeInstance() const
{
    return factory_ ? factory_() : nullptr;
}

const std::any* Class::findOperation(std::string_view selector) const
{
    for (const Class* cls = this; cls != nullptr; cls = cls->superclass()) {
        if (const auto found = cls->operations_.find(selector); found != cls->operations_.end()) {
            return &found->second;
        }
    }
    return nullptr;
}

const Class& registerClass(ClassDescription description)
{
    const std::string superclassName = description.superclassName_;
    return registry().add(std::unique_ptr<Class>(new Class(std::move(description))), superclassName);
}

const Class* classFromString(std::string_view name)
{
    return registry().find(name);
}

std::uint64_t classRegistryGeneration()
{
    return registry().generation();
}

std::vector<const Class*> classList()
{
    return registry().all();
}

const Class* classOf(const Object& object)
{
    return classFromString(object.className());
}

const Class* classOf(const Value& value)
{
    if (const ObjectRef object = value.object()) {
        return classOf(*object);
    }
    const std::string_view name = valueClassName(value.kind());
    return name.empty() ? nullptr : classFromString(name);
}

bool isKindOfClass(const Value& value, const Class& cls)
{
    const Class* own = classOf(value);
    return own != nullptr && own->isSubclassOfClass(cls);
}

}  // namespace platform
