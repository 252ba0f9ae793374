// NSManagedObjectModel(QMCoreData): a model from a bundle's model resource
// "<name>.momd". A missing resource is a programming error (an assertion);
// a resource that cannot be read gives nothing.
#pragma once

#include "Platform/Bundle/Bundle.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include <string>

platform::ManagedObjectModelRef managedObjectModelWithName(const std::string& name, const platform::Bundle& bundle);
