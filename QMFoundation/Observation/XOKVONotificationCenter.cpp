#include "QMFoundation/Observation/XOKVONotificationCenter.h"

#include "QMFoundation/Observation/NSArray+XOKeyPath.h"
#include "QMFoundation/Observation/NSString+XOKeyPath.h"
#include "QMFoundation/Observation/_XOKVONotificationHelper.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <vector>

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/XOKVONotificationCenter";

// The classes whose instances clean up their observations when they go.
// Never destroyed: objects may still go during the process's static clean-up.
struct SwizzledClasses {
    std::mutex mutex;  // guards `classes`
    std::set<std::type_index> classes;
};

SwizzledClasses& swizzledClasses()
{
    static auto* const instance = new SwizzledClasses();
    return *instance;
}

template <typename Collection>
void appendKeyPaths(const Collection& collection, std::vector<std::string>& keyPaths)
{
    for (const auto& element : collection) {
        const auto* text = element.string();
        if (text == nullptr) {
            platform::Exception::raise(platform::NSInvalidArgumentException,
                                       "A key path must be a string, not " + element.description() + ".");
        }
        keyPaths.push_back(*text);
    }
}

// Nothing gives no key paths.
std::vector<std::string> keyPathsOf(const platform::Value& keyPath)
{
    std::vector<std::string> keyPaths;
    if (const auto* text = keyPath.string()) {
        appendKeyPaths(xo_keyPathsAsSetOfStrings(*text), keyPaths);
    } else if (const auto* array = keyPath.array()) {
        appendKeyPaths(xo_keyPathsAsSetOfStrings(*array), keyPaths);
    } else if (!keyPath.isNothing()) {
        platform::Exception::raise(platform::NSInvalidArgumentException,
                                   keyPath.description() + " is neither a key path nor an array of key paths.");
    }
    return keyPaths;
}

// The objects that stand for a target: the object, or the objects of an array.
std::vector<platform::ObjectRef> targetObjects(const platform::Value& target)
{
    std::vector<platform::ObjectRef> objects;
    if (auto object = target.object()) {
        objects.push_back(std::move(object));
    } else if (const auto* array = target.array()) {
        for (const auto& element : *array) {
            if (auto member = element.object()) {
                objects.push_back(std::move(member));
            }
        }
    }
    return objects;
}

}  // namespace

std::shared_ptr<XOKVONotificationCenter> XOKVONotificationCenter::defaultCenter()
{
    static const auto center = platform::makeObject<XOKVONotificationCenter>();
    return center;
}

std::shared_ptr<XOKVOObservation> XOKVONotificationCenter::addObserver(const platform::ObjectRef& observer,
                                                                       const platform::Value& object,
                                                                       const platform::Value& keyPath,
                                                                       std::optional<XOKVOSelector> selector,
                                                                       platform::Value userInfo,
                                                                       platform::KeyValueObservingOptions options)
{
    return addObservation(observer, object, keyPath, std::move(selector), std::move(userInfo), nullptr, options);
}

std::shared_ptr<XOKVOObservation> XOKVONotificationCenter::addObserver(const platform::ObjectRef& observer,
                                                                       const platform::Value& object,
                                                                       const platform::Value& keyPath,
                                                                       platform::KeyValueObservingOptions options,
                                                                       XOKVONotificationBlock block)
{
    return addObservation(observer, object, keyPath, std::nullopt, {}, std::move(block), options);
}

std::shared_ptr<XOKVOObservation> XOKVONotificationCenter::addObservation(
    const platform::ObjectRef& observer, const platform::Value& object, const platform::Value& keyPath,
    std::optional<XOKVOSelector> selector, platform::Value userInfo, XOKVONotificationBlock block,
    platform::KeyValueObservingOptions options)
{
    if ((options & XOKVONotificationOptionUnregisterManually) == 0) {
        if (observer) {
            _swizzleObjectClassIfNeeded(*observer);
        }
        for (const auto& target : targetObjects(object)) {
            _swizzleObjectClassIfNeeded(*target);
        }
    }
    return _XOKVONotificationHelper::create(observer, object, keyPathsOf(keyPath), std::move(selector),
                                            std::move(userInfo), std::move(block), options);
}

void XOKVONotificationCenter::removeObserver(const platform::ObjectRef& observer, const platform::Value& object,
                                             const platform::Value& keyPath,
                                             const std::optional<XOKVOSelector>& selector)
{
    PLATFORM_PARAMETER_ASSERT(observer || !object.isNothing(), "observer || target");

    std::vector<std::shared_ptr<_XOKVONotificationHelper>> candidates;
    auto collect = [&candidates](const platform::Object& participant) {
        for (auto& helper : _XOKVONotificationHelper::helpersOf(participant)) {
            if (std::find(candidates.begin(), candidates.end(), helper) == candidates.end()) {
                candidates.push_back(std::move(helper));
            }
        }
    };
    if (observer) {
        collect(*observer);
    }
    for (const auto& target : targetObjects(object)) {
        collect(*target);
    }

    std::optional<std::set<std::string>> keyPaths;
    if (!keyPath.isNothing()) {
        const auto given = keyPathsOf(keyPath);
        keyPaths.emplace(given.begin(), given.end());
    }
    for (const auto& helper : candidates) {
        if (helper->matches(observer.get(), object, keyPaths, selector)) {
            helper->remove();
        }
    }
}

void XOKVONotificationCenter::removeObservation(const std::shared_ptr<XOKVOObservation>& observation)
{
    if (observation) {
        observation->remove();
    }
}

void XOKVONotificationCenter::_swizzleObjectClassIfNeeded(const platform::Object& object)
{
    auto& swizzled = swizzledClasses();
    std::lock_guard lock(swizzled.mutex);
    swizzled.classes.insert(std::type_index(typeid(object)));
}

void XOKVONotificationCenter::_deregisterHelpersOfDestroyedObject(platform::Object& object, std::type_index type)
{
    {
        auto& swizzled = swizzledClasses();
        std::lock_guard lock(swizzled.mutex);
        if (swizzled.classes.count(type) == 0) {
            return;
        }
    }
    for (const auto& helper : _XOKVONotificationHelper::helpersOf(object)) {
        helper->remove();
    }
}
