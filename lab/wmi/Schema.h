// The classes of the two namespaces: their properties in WMI's order with their types, and their methods.
#pragma once

#include "lab/wmi/Value.h"

#include <map>
#include <memory>

namespace lab::wmi
{

enum class Namespace
{
    Cimv2,
    Wmi
};

struct MethodType
{
    std::wstring name;
    bool isStatic = false;
    std::vector<PropertyType> in; // none: the method has no input signature
};

struct ClassType
{
    std::wstring name;
    std::wstring superclass;
    std::vector<std::wstring> ancestors; // nearest first
    std::vector<PropertyType> properties;
    std::vector<MethodType> methods;

    [[nodiscard]] std::size_t Find(std::wstring_view property) const noexcept; // npos if none; letter case ignored
    [[nodiscard]] const MethodType* FindMethod(std::wstring_view method) const noexcept;
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
};

using ClassPointer = std::shared_ptr<const ClassType>;

// Null if the namespace has no class of that name; letter case ignored.
[[nodiscard]] ClassPointer FindClass(Namespace space, std::wstring_view name);
// The input signature of a method, and the one output that all have, "ReturnValue".
[[nodiscard]] ClassPointer InputClass(const MethodType& method);
[[nodiscard]] ClassPointer OutputClass();

[[nodiscard]] bool EqualNoCase(std::wstring_view a, std::wstring_view b) noexcept;
[[nodiscard]] std::wstring_view NamespaceName(Namespace space) noexcept; // "ROOT\CIMV2"

} // namespace lab::wmi
