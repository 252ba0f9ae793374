// Class: the runtime's record of a class that can be found by name.
//
// A class is registered where it is defined, by a registration object in its
// own source file; there is no central list to edit:
//
//   // QMLogger.cpp
//   PLATFORM_CLASS_REGISTRATION(QMLogger) = platform::ClassDescription("QMLogger")
//       .superclass("NSObject")
//       .factory([] { return QMLogger::create(); })
//       .classOperation<int()>("ddLogLevel", [] { return QMLogger::ddLogLevel(); })
//       .classOperation<void(int)>("ddSetLogLevel:", [](int level) { QMLogger::ddSetLogLevel(level); });
//
// and found again by name, without the finder knowing the class:
//
//   if (const platform::Class* cls = platform::classFromString("QMLogger")) {
//       auto level = cls->operation<int()>("ddLogLevel");   // null when the class has no such operation
//       platform::ObjectRef instance = cls->makeInstance(); // null for a class without a factory
//   }
//
// Contract:
// - Classes are registered once and live until the process ends: a `const
//   Class*` never dangles, and every function here may be called from any
//   thread at any time, static initialisation included.
// - Names are unique. Registering a name a second time, or a superclass chain
//   that leads back to the class, is a programming error and raises
//   "NSInternalInconsistencyException" (at start-up, for a static registration).
// - The superclass is named, not referenced, so registrations in different
//   source files need no order among themselves. Until the superclass is
//   registered the class reads as a root class.
// - A class registers under the name its instances' `className()` answers, so
//   that `classOf` finds the class of an object.
// - Class operations (the design's class methods) are found through the
//   superclass chain, as class methods are inherited. They are typed: asking
//   with another signature than the one registered finds nothing.
// - Not promised: unregistering, or any order of `classList`'s entries other
//   than by name.
//
// Linking. A registration in a static library runs only if the linker takes
// its object file, and the linker takes an object file of an archive only for
// a symbol that something else needs. A class whose source file has other
// functions the program calls (its constructor, its factory) is linked with
// them. A class that is only ever found by name (a value transformer named in
// a model) must be pulled in explicitly: its header, or any source file of the
// program, says
//
//   PLATFORM_LINK_CLASS(NSStringToNSURLTransformer);
//
// which refers to the symbol that PLATFORM_CLASS_REGISTRATION defines, or the
// program links the library whole (CMake's $<LINK_LIBRARY:WHOLE_ARCHIVE,...>).
// Both macros are used at global scope.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Class;
class ClassDescription;
const Class& registerClass(ClassDescription description);

// What a registration says about a class; a Class is made from it.
class ClassDescription {
public:
    using Factory = std::function<ObjectRef()>;

    explicit ClassDescription(std::string name) : name_(std::move(name)) {}

    // The superclass's name; a class without one is a root class.
    ClassDescription& superclass(std::string name)
    {
        superclassName_ = std::move(name);
        return *this;
    }
    // How `makeInstance` makes a new instance; a class without a factory
    // (an abstract class, a kind of value) cannot be instantiated by name.
    ClassDescription& factory(Factory factory)
    {
        factory_ = std::move(factory);
        return *this;
    }
    // A class-level operation under its selector, with the signature callers
    // ask for: classOperation<int()>("ddLogLevel", ...).
    template <typename Signature, typename F>
    ClassDescription& classOperation(std::string selector, F&& function)
    {
        operations_.insert_or_assign(std::move(selector), std::function<Signature>(std::forward<F>(function)));
        return *this;
    }

private:
    friend class Class;
    friend const Class& registerClass(ClassDescription description);

    std::string name_;
    std::string superclassName_;
    Factory factory_;
    std::map<std::string, std::any, std::less<>> operations_;
};

class Class {
public:
    Class(const Class&) = delete;
    Class& operator=(const Class&) = delete;

    const std::string& name() const { return name_; }
    // Nothing for a root class, and for a class whose superclass is not
    // registered (yet).
    const Class* superclass() const;
    // True for the class itself and for every class it descends from.
    bool isSubclassOfClass(const Class& other) const;

    bool canMakeInstance() const { return static_cast<bool>(factory_); }
    // A new instance, or nothing for a class without a factory.
    ObjectRef makeInstance() const;

    // Whether the class or one of its superclasses has the operation, with
    // any signature.
    bool respondsToSelector(std::string_view selector) const { return findOperation(selector) != nullptr; }
    // The operation, or null when neither the class nor a superclass has it
    // with exactly this signature. The pointer lives as long as the class.
    template <typename Signature>
    const std::function<Signature>* operation(std::string_view selector) const
    {
        const std::any* found = findOperation(selector);
        return found != nullptr ? std::any_cast<std::function<Signature>>(found) : nullptr;
    }

private:
    friend const Class& registerClass(ClassDescription description);
    explicit Class(ClassDescription description);

    const std::any* findOperation(std::string_view selector) const;

    std::string name_;
    std::string superclassName_;
    ClassDescription::Factory factory_;
    std::map<std::string, std::any, std::less<>> operations_;
    // Resolved on first need; it never changes once found, as names are unique.
    mutable std::atomic<const Class*> superclass_{nullptr};
};

// registerClass(description): registers a class and returns it; see the
// banner for what raises.

// The class registered under `name`, or nothing.
const Class* classFromString(std::string_view name);
// Changes whenever a class is registered. A caller that remembers that a name
// found nothing may keep that answer while this stays the same, if it read
// this before the look-up (a class found is found for good).
std::uint64_t classRegistryGeneration();
// Every registered class, by name.
std::vector<const Class*> classList();

// The class of an object (found by its className()), or nothing when that
// class is not registered.
const Class* classOf(const Object& object);
// The class of a value: its object's class, or for the other kinds the value
// classes this runtime registers ("NSString", "NSNumber" for booleans,
// integers and doubles alike, "NSData", "NSDate", "NSURL", "NSArray",
// "NSDictionary", "NSSet", "NSNull"). Nothing for a value holding nothing.
const Class* classOf(const Value& value);
// Whether the value is an instance of `cls` or of one of its subclasses.
bool isKindOfClass(const Value& value, const Class& cls);

// Registration from a source file; see the banner. The registration object
// outlives nothing it refers to: it only registers.
class ClassRegistration {
public:
    ClassRegistration(ClassDescription description) : class_(registerClass(std::move(description))) {}
    const Class& registeredClass() const { return class_; }

private:
    const Class& class_;
};

}  // namespace platform

// The registration of a class in its source file, and the link anchor that
// PLATFORM_LINK_CLASS refers to. `identifier` is the class name as a C++
// identifier.
#define PLATFORM_CLASS_REGISTRATION(identifier)                          \
    namespace platform_class_anchor {                                  \
    extern const char identifier;                                      \
    const char identifier = 0;                                         \
    }                                                                  \
    static const ::platform::ClassRegistration platformClassRegistration_##identifier

// Makes sure the class's registration is linked; see the banner.
#define PLATFORM_LINK_CLASS(identifier)                                                      \
    namespace platform_class_anchor {                                                      \
    extern const char identifier;                                                          \
    [[gnu::used]] inline const char* const link_##identifier = &platform_class_anchor::identifier; \
    }                                                                                      \
    static_assert(true, "")
