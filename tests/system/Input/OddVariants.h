#pragma once
// Variants of every type, for handing them in where something else is wanted.

#include <windows.h>

#include <oleauto.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct OddVariant
{
    std::string name;
    VARIANT value{};
};

// All of them, and what they point to. Each type number that exists and some that do not; each alone, by reference and
// as an array; null pointers and real objects; arrays of odd shapes, and arrays whose entries are not what the type
// says.
class OddVariants
{
public:
    OddVariants();
    ~OddVariants();
    OddVariants(const OddVariants&) = delete;
    OddVariants& operator=(const OddVariants&) = delete;

    // Runs the action with a shallow copy of each: what it hands on must not be cleared.
    void ForEach(const std::function<void(const OddVariant&)>& action) const;

private:
    union Target; // what a reference leads to

    void Add(std::string name, const VARIANT& value) { all.push_back({std::move(name), value}); }
    void AddNumbers();
    void AddReferences();
    void AddArrays();
    void AddOddArrays();
    void AddObjects();
    void AddRecord();
    void AddArray(const std::string& name, VARTYPE claimed, SAFEARRAY* array);

    std::vector<OddVariant> all;
    std::vector<std::unique_ptr<Target>> targets;
    std::vector<BSTR> texts;
    std::vector<SAFEARRAY*> arrays;
    IDispatch* object = nullptr;
};
