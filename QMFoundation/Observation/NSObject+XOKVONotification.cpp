#include "QMFoundation/Observation/NSObject+XOKVONotification.h"

#include <utility>

namespace {

XOKVONotificationCenter& center()
{
    return *XOKVONotificationCenter::defaultCenter();
}

}  // namespace

std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                                              const platform::Value& keyPath, std::optional<XOKVOSelector> selector,
                                              platform::Value userInfo, platform::KeyValueObservingOptions options)
{
    return center().addObserver(observer, self, keyPath, std::move(selector), std::move(userInfo), options);
}

std::shared_ptr<XOKVOObservation> observeTarget(const platform::ObjectRef& self, const platform::Value& target,
                                                const platform::Value& keyPath, std::optional<XOKVOSelector> selector,
                                                platform::Value userInfo, platform::KeyValueObservingOptions options)
{
    return center().addObserver(self, target, keyPath, std::move(selector), std::move(userInfo), options);
}

std::shared_ptr<XOKVOObservation> addObservationKeyPath(const platform::ObjectRef& self, const platform::Value& keyPath,
                                                        platform::KeyValueObservingOptions options,
                                                        XOKVONotificationBlock block)
{
    return center().addObserver(nullptr, self, keyPath, options, std::move(block));
}

std::shared_ptr<XOKVOObservation> addObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                                              const platform::Value& keyPath, platform::KeyValueObservingOptions options,
                                              XOKVONotificationBlock block)
{
    return center().addObserver(observer, self, keyPath, options, std::move(block));
}

std::shared_ptr<XOKVOObservation> observeTarget(const platform::ObjectRef& self, const platform::Value& target,
                                                const platform::Value& keyPath,
                                                platform::KeyValueObservingOptions options,
                                                XOKVONotificationBlock block)
{
    return center().addObserver(self, target, keyPath, options, std::move(block));
}

void removeAllObservers(const platform::ObjectRef& self)
{
    center().removeObserver(nullptr, self);
}

void stopObservingAllTargets(const platform::ObjectRef& self)
{
    center().removeObserver(self, {});
}

void removeObserver(const platform::ObjectRef& self, const platform::ObjectRef& observer,
                    const platform::Value& keyPath, const std::optional<XOKVOSelector>& selector)
{
    center().removeObserver(observer, self, keyPath, selector);
}

void stopObserving(const platform::ObjectRef& self, const platform::Value& target, const platform::Value& keyPath,
                   const std::optional<XOKVOSelector>& selector)
{
    center().removeObserver(self, target, keyPath, selector);
}
