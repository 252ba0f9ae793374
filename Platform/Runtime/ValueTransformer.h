// ValueTransformer: the base class of objects that turn one value into
// another (a string into a date, a number into a boolean), and the registry of
// transformers by name.
//
// A transformer class overrides what it changes and registers as a class, so a
// model can name it:
//
//   class NSStringToNSURLTransformer : public platform::ValueTransformer {
//   public:
//       static std::shared_ptr<NSStringToNSURLTransformer> create();
//       const platform::Class* transformedValueClass() const override { return platform::classFromString("NSURL"); }
//       platform::Value transformedValue(const platform::Value& value) const override;
//       platform::Value reverseTransformedValue(const platform::Value& value) const override;
//   };
//
//   PLATFORM_CLASS_REGISTRATION(NSStringToNSURLTransformer) =
//       platform::ClassDescription("NSStringToNSURLTransformer")
//           .superclass("NSValueTransformer")
//           .factory([] { return NSStringToNSURLTransformer::create(); });
//
// Contract:
// - What the design asks of the transformer's class (whether it reverses, the
//   class of what it makes) is asked here of an instance; every instance of a
//   class must answer alike.
// - The base class is the identity: forward returns the value unchanged,
//   `allowsReverseTransformation` is true, and reverse, where allowed,
//   transforms forward. Reversing a transformer that does not allow it raises
//   "NSInvalidArgumentException".
// - A transformer holds no state that a transformation changes, so one
//   instance may be used from several threads at once; subclasses keep that.
// - The registry by name may be used from any thread. A name that was never
//   set but names a registered transformer class gets a new instance of that
//   class, which is then kept under the name (later look-ups give the same
//   instance until the name is set again).
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Runtime/Class.h"

#include <memory>
#include <string_view>

namespace platform {

class ValueTransformer;
using ValueTransformerRef = std::shared_ptr<ValueTransformer>;

class ValueTransformer : public Object {
public:
    // The identity transformer.
    static ValueTransformerRef create();

    // The class of what `transformedValue` gives; "NSObject" in the base class.
    virtual const Class* transformedValueClass() const;
    virtual bool allowsReverseTransformation() const { return true; }
    virtual Value transformedValue(const Value& value) const { return value; }
    // Raises "NSInvalidArgumentException" when reversal is not allowed;
    // otherwise `transformedValue` in the base class.
    virtual Value reverseTransformedValue(const Value& value) const;

    std::string className() const override { return "NSValueTransformer"; }

    // A new instance of the transformer class called `className`, or nothing
    // when no such class is registered, it cannot be made, or it is not a
    // transformer.
    static ValueTransformerRef transformerOfClassNamed(std::string_view className);

    // The registry by name. Setting nothing removes the name.
    static void setValueTransformer(ValueTransformerRef transformer, std::string_view name);
    // The transformer set under `name`; else a new instance of the transformer
    // class of that name, kept from then on; else nothing.
    static ValueTransformerRef valueTransformerForName(std::string_view name);

protected:
    template <class> friend struct ObjectAllocator;
    ValueTransformer() = default;
};

}  // namespace platform
