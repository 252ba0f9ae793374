// NSObject(XOKVONotification): the observation centre's operations from
// either side of an observation. `self` is the target in the add-observer
// and remove-observer forms and the observer in the observe-target and
// stop-observing forms. Everything goes to the default centre; see
// XOKVONotificationCenter.h for the contract.
//
//   auto token = observeTarget(self, person, "name", NSKeyValueObservingOptionNew,
//                              [](const std::shared_ptr<XOKVONotification>& notification) { ... });
//   stopObserving(self, person, "name");
#pragma once

#include "QMFoundation/Observation/XOKVONotificationCenter.h"

#include <memory>
#include <optional>

// With a selector sent to the observer.
std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                                              const platform::Value& keyPath, std::optional<XOKVOSelector> selector,
                                              platform::Value userInfo, platform::KeyValueObservingOptions options);
std::shared_ptr<XOKVOObservation> observeTarget(const platform::ObjectRef& self, const platform::Value& target,
                                                const platform::Value& keyPath, std::optional<XOKVOSelector> selector,
                                                platform::Value userInfo, platform::KeyValueObservingOptions options);

// With a block. addObservationKeyPath observes `self` with no observer, so
// only the target's going (or the token) ends it.
std::shared_ptr<XOKVOObservation> addObservationKeyPath(const platform::ObjectRef& self, const platform::Value& keyPath,
                                                        platform::KeyValueObservingOptions options,
                                                        XOKVONotificationBlock block);
std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                                              const platform::Value& keyPath, platform::KeyValueObservingOptions options,
                                              XOKVONotificationBlock block);
std::shared_ptr<XOKVOObservation> observeTarget(const platform::ObjectRef& self, const platform::Value& target,
                                                const platform::Value& keyPath,
                                                platform::KeyValueObservingOptions options,
                                                XOKVONotificationBlock block);

// Every observation of `self` as target, whoever observes.
void removeAllObservers(const platform::ObjectRef& self);
// Every observation made with `self` as observer.
void stopObservingAllTargets(const platform::ObjectRef& self);
// Nothing for a key path or a selector matches any.
void removeObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                    const platform::Value& keyPath, const std::optional<XOKVOSelector>& selector = std::nullopt);
void stopObserving(const platform::ObjectRef& self, const platform::Value& target, const platform::Value& keyPath,
                   const std::optional<XOKVOSelector>& selector = std::nullopt);
