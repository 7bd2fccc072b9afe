#include "lab/netcfg/Model.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>

namespace lab::netcfg
{

namespace
{

constexpr char rasService[] = "NdisWan";
constexpr char rasComponent[] = "ms_ndiswanip";

Component ProtocolComponent(const char* id, const char* name, const char* guid)
{
    return Component{id, name, guid, {}, false};
}

Component AdapterComponent(const Json& adapter)
{
    const std::string service = TextField(adapter, "service");
    const std::string usual = EqualNoCase(service, rasService) ? std::string{rasComponent} : Lower(service);
    return Component{TextField(adapter, "componentId", usual), TextField(adapter, "description"),
                     TextField(adapter, "guid"), TextField(adapter, "pnpDeviceId"), true};
}

std::size_t Enter(Model& model, Component component)
{
    model.components.push_back(std::move(component));
    return model.components.size() - 1;
}

void EnterPath(Model& model, std::size_t owner, std::vector<std::optional<std::size_t>> lower)
{
    Path path{owner, std::move(lower), model.components[owner].id, true};
    for (const auto& component : path.lower)
    {
        path.token += "->" + (component ? model.components[*component].guid : std::string{"none"});
    }
    model.paths.push_back(std::move(path));
}

void UsualPaths(Model& model)
{
    const auto ipv6 = model.FindById("ms_tcpip6");
    const auto ipv4 = model.FindById("ms_tcpip");
    bool hasRas = false;
    for (std::size_t i = 0; i < model.components.size(); ++i)
    {
        if (!model.components[i].isAdapter)
        {
            continue;
        }
        const bool isRas = EqualNoCase(model.components[i].id, rasComponent);
        hasRas |= isRas;
        if (!isRas && ipv6)
        {
            EnterPath(model, *ipv6, {i});
        }
        if (ipv4)
        {
            EnterPath(model, *ipv4, {i});
        }
    }
    if (hasRas)
    {
        const std::size_t wan = Enter(model, ProtocolComponent("ms_ndiswan", "Remote access NDIS WAN driver",
                                                               "{6E2A0C03-51D8-4B7E-9A40-2F6C1B8D7003}"));
        const std::size_t miniport = Enter(model, ProtocolComponent("ms_l2tpminiport", "WAN Miniport (L2TP)",
                                                                    "{6E2A0C04-51D8-4B7E-9A40-2F6C1B8D7004}"));
        EnterPath(model, wan, {miniport});
    }
}

std::optional<std::size_t> Resolve(const Model& model, const Json& state, const std::string& name)
{
    if (const Json* const adapter = FindAdapter(state, name))
    {
        const std::string guid = TextField(*adapter, "guid");
        for (std::size_t i = 0; i < model.components.size(); ++i)
        {
            if (model.components[i].isAdapter && EqualNoCase(model.components[i].guid, guid))
            {
                return i;
            }
        }
    }
    return model.FindById(name);
}

// A path that names an adapter which is not in the machine does not exist.
void DeclaredPaths(Model& model, const Json& state, const Json& paths)
{
    for (const Json& declared : paths)
    {
        const auto owner = model.FindById(TextField(declared, "protocol"));
        std::vector<std::optional<std::size_t>> lower;
        bool complete = owner.has_value();
        for (const Json& name : Member(declared, "lower"))
        {
            if (name.is_null())
            {
                lower.emplace_back();
            }
            else
            {
                lower.push_back(Resolve(model, state, name.get<std::string>()));
                complete &= lower.back().has_value();
            }
        }
        if (complete)
        {
            EnterPath(model, *owner, std::move(lower));
        }
    }
}

} // namespace

std::optional<std::size_t> Model::FindById(std::string_view id) const noexcept
{
    for (std::size_t i = 0; i < components.size(); ++i)
    {
        if (EqualNoCase(components[i].id, id))
        {
            return i;
        }
    }
    return std::nullopt;
}

Model ReadModel(const Json& state)
{
    const Json& netcfg = Member(state, "netcfg");
    Model model;
    model.applyResult = static_cast<std::int32_t>(NumberField(netcfg, "applyResult", 0));
    for (const Json& component : Member(netcfg, "components"))
    {
        Enter(
            model,
            {TextField(component, "id"), TextField(component, "displayName"), TextField(component, "guid"), {}, false});
    }
    // A machine whose scenario lists an IP protocol among its components has that one, under its name and GUID.
    if (!FlagField(netcfg, "noProtocols", false))
    {
        if (!model.FindById("ms_tcpip6"))
        {
            Enter(model, ProtocolComponent("ms_tcpip6", "Internet Protocol Version 6 (TCP/IPv6)",
                                           "{6E2A0C01-51D8-4B7E-9A40-2F6C1B8D7001}"));
        }
        if (!model.FindById("ms_tcpip"))
        {
            Enter(model, ProtocolComponent("ms_tcpip", "Internet Protocol Version 4 (TCP/IPv4)",
                                           "{6E2A0C02-51D8-4B7E-9A40-2F6C1B8D7002}"));
        }
    }
    for (const Json& adapter : Member(state, "adapters"))
    {
        if (IsPresent(adapter))
        {
            Enter(model, AdapterComponent(adapter));
        }
    }
    if (const Json& paths = Member(netcfg, "paths"); paths.is_array())
    {
        DeclaredPaths(model, state, paths);
    }
    else
    {
        UsualPaths(model);
    }
    DeclaredPaths(model, state, Member(netcfg, "morePaths"));
    for (const Json& token : Member(netcfg, "disabled"))
    {
        for (Path& path : model.paths)
        {
            path.enabled &= !(token.is_string() && path.token == token.get<std::string>());
        }
    }
    return model;
}

void StoreChanges(Json& state, const Model& before, const Model& after)
{
    Json& disabled = state["netcfg"]["disabled"];
    if (!disabled.is_array())
    {
        disabled = Json::array();
    }
    for (std::size_t i = 0; i < after.paths.size(); ++i)
    {
        const Path& path = after.paths[i];
        if (path.enabled == before.paths[i].enabled)
        {
            continue;
        }
        const auto found = std::find(disabled.begin(), disabled.end(), Json(path.token));
        if (path.enabled && found != disabled.end())
        {
            disabled.erase(found);
        }
        else if (!path.enabled && found == disabled.end())
        {
            disabled.push_back(path.token);
        }
    }
}

} // namespace lab::netcfg
