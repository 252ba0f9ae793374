// Model classes for the mapping tests: a repository as a hosting service
// describes it, a subclass of it, and an unrelated model. Properties hold
// values as they are set, so a test sees exactly what the mapping stored.
#pragma once

#include "Platform/Foundation/Value.h"
#include "QMFoundation/REST/QMRESTAPIModel.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace resttest {

// A model whose properties are whatever names the property table lists.
class ValueModel : public QMRESTAPIModel {
public:
    platform::Value get(std::string_view name) const
    {
        const auto found = values_.find(std::string(name));
        return found == values_.end() ? platform::Value() : found->second;
    }
    void set(std::string_view name, platform::Value value) { values_[std::string(name)] = std::move(value); }

protected:
    template <typename Model>
    static platform::PropertyTable tableOf(std::initializer_list<const char*> names)
    {
        platform::PropertyTable table = QMRESTAPIModel::create()->propertyTable();
        for (const char* name : names) {
            table = platform::PropertyTable::extending<Model>(
                table, {{name, [name](const Model& model) { return model.get(name); },
                         [name](Model& model, const platform::Value& value) { model.set(name, value); }}});
        }
        return table;
    }

private:
    std::map<std::string, platform::Value> values_;
};

class TestRepository : public ValueModel {
public:
    static std::shared_ptr<TestRepository> create()
    {
        auto repository = platform::makeObject<TestRepository>();
        repository->set("watchers", 7);  // an initial value the mapping must leave alone
        return repository;
    }
    std::string className() const override { return "TestRepository"; }
    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = tableOf<TestRepository>(
            {"identifier", "name", "pushedAt", "homepage", "isPrivate", "updatedText", "owner", "watchers", "stars"});
        return table;
    }

protected:
    template <class> friend struct platform::ObjectAllocator;
    TestRepository() = default;
};

class TestFork final : public TestRepository {
public:
    static std::shared_ptr<TestFork> create() { return platform::makeObject<TestFork>(); }
    std::string className() const override { return "TestFork"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    TestFork() = default;
};

class TestUser final : public ValueModel {
public:
    static std::shared_ptr<TestUser> create() { return platform::makeObject<TestUser>(); }
    std::string className() const override { return "TestUser"; }
    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = tableOf<TestUser>({"name", "title"});
        return table;
    }

private:
    template <class> friend struct platform::ObjectAllocator;
    TestUser() = default;
};

const platform::Class& repositoryClass();
const platform::Class& forkClass();
const platform::Class& userClass();

}  // namespace resttest
