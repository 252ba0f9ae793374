// XOKVONotificationCenter: key-value observation with a block or a selector,
// each observation a removable token, tied to the lifetime of both the
// observer and the observed object (or array of objects).
//
//   auto token = XOKVONotificationCenter::defaultCenter()->addObserver(
//       watcher, person, "name", NSKeyValueObservingOptionNew,
//       [](const std::shared_ptr<XOKVONotification>& notification) { ... notification->newValue() ... });
//   ...
//   token->remove();   // or let the watcher or the person go
//
// Contract:
// - Notifications arrive on the thread that changes the observed value; the
//   block or selector runs there, synchronously, with no lock of the centre held.
// - Unless the options carry XOKVONotificationOptionUnregisterManually, the
//   classes of the observer and of the target get automatic removal: when an
//   instance of such a class is destroyed, every observation it takes part in
//   (as observer or as target) is removed first. From then on nothing is
//   delivered for it, on any thread. With the bit, the caller removes the token.
// - An observer that is destroyed while its class has no automatic removal is
//   never called again either: observers are held weakly. The token stays
//   valid until it is removed.
// - The target is an object or an array of objects (each element is observed;
//   an element that changes is the notification's target). An array has no
//   identity of its own here: it is destroyed, for automatic removal, when one
//   of its objects is, and it matches another array of the same objects in
//   the same order.
// - A key path is a string or an array of strings (see NSString+XOKeyPath.h
//   and NSArray+XOKeyPath.h); anything else raises "NSInvalidArgumentException".
#pragma once

#include "QMFoundation/Observation/XOKVONotification.h"
#include "QMFoundation/Observation/XOKVOObservation.h"

#include <memory>
#include <optional>
#include <typeindex>

class _XOKVONotificationHelper;

class XOKVONotificationCenter : public platform::Object {
public:
    // One shared instance, made on first use, living until the process ends.
    static std::shared_ptr<XOKVONotificationCenter> defaultCenter();

    // Observes `keyPath` of `object`; each change sends `selector` to the
    // observer with the key path, the changed object, the change dictionary
    // and `userInfo` (held strongly).
    std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& observer, const platform::Value& object,
                                                  const platform::Value& keyPath,
                                                  std::optional<XOKVOSelector> selector, platform::Value userInfo,
                                                  platform::KeyValueObservingOptions options);
    // The same with a block (held strongly) that receives an XOKVONotification.
    // The observer may be nothing; with one, the block is not called once the
    // observer has gone.
    std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& observer, const platform::Value& object,
                                                  const platform::Value& keyPath,
                                                  platform::KeyValueObservingOptions options,
                                                  XOKVONotificationBlock block);

    // Removes every observation of the observer and of the target that
    // matches each criterion given: the observer, the target, the key paths
    // (compared as sets), the selector. An observer or a target is required.
    void removeObserver(const platform::ObjectRef& observer, const platform::Value& object,
                        const platform::Value& keyPath = {}, const std::optional<XOKVOSelector>& selector = std::nullopt);
    void removeObservation(const std::shared_ptr<XOKVOObservation>& observation);

private:
    friend class _XOKVONotificationHelper;

    template <class> friend struct platform::ObjectAllocator;
    XOKVONotificationCenter() = default;

    std::shared_ptr<XOKVOObservation> addObservation(const platform::ObjectRef& observer,
                                                     const platform::Value& object, const platform::Value& keyPath,
                                                     std::optional<XOKVOSelector> selector, platform::Value userInfo,
                                                     XOKVONotificationBlock block,
                                                     platform::KeyValueObservingOptions options);

    // Gives the object's class automatic removal, once per class. Each
    // participating object carries a destruction hook (installed with its
    // helper set) that looks the class up when the object goes, so a class
    // that gains automatic removal later covers its older instances too.
    static void _swizzleObjectClassIfNeeded(const platform::Object& object);
    // The destruction hook: deregisters every helper the object takes part
    // in, when its class has automatic removal.
    static void _deregisterHelpersOfDestroyedObject(platform::Object& object, std::type_index type);
};
