' A late-bound client of the registry, service and adapter settings proxies.
Option Explicit
Const OwnPath = "HKEY_LOCAL_MACHINE\SOFTWARE\QRLS\Sorvane\ScriptTest"
Const OutsidePath = "HKEY_LOCAL_MACHINE\SOFTWARE\ScriptTestOutside"

Dim held, heldKind

Sub Check(what, condition, detail)
    If condition Then
        WScript.Echo "ok " & what
    Else
        WScript.Echo "not ok " & what & ": " & detail
    End If
End Sub

Dim registry, kind, data
Set registry = CreateObject("Halcyd.NetRegistry")
On Error Resume Next

' A success code that is not 0 is no error to a script: it looks at what is there afterwards.
registry.SetRegistry "text", OwnPath, 1, "hello"
Check "text is written", Err.Number = 0, Hex(Err.Number)
registry.QueryRegistry "text", OwnPath, kind, data
Check "text and its type come back", kind = 1 And data = "hello", kind & " " & data
held = "from a variable"
heldKind = 1
registry.SetRegistry "variable", OwnPath, heldKind, held
registry.QueryRegistry "variable", OwnPath, kind, data
Check "variables are read through", kind = 1 And data = "from a variable" And held = data, kind & " " & data
registry.SetRegistry "number", OwnPath, 4, 77
registry.QueryRegistry "number", OwnPath, kind, data
Check "number comes back", kind = 4 And data = 77, kind & " " & data
registry.SetRegistry "list", OwnPath, 7, "one,two,three"
registry.QueryRegistry "list", OwnPath, kind, data
Check "comma separated text is a list of strings", kind = 7 And VarType(data) = 8200, kind
registry.SetRegistry "text", OutsidePath, 1, "hello"
data = "untouched"
registry.QueryRegistry "text", OutsidePath, kind, data
Check "nothing is written outside the list", data = "untouched", data
registry.DeleteRegistry "text", OwnPath
registry.QueryRegistry "text", OwnPath, kind, data
Check "values are not deleted", data = "hello", data
registry.DeleteRegistryNode OwnPath
data = "gone"
registry.QueryRegistry "text", OwnPath, kind, data
Check "nodes are deleted", data = "gone", data
Err.Clear
registry.RefreshDNSCache
Check "the name cache's refresh is no error", Err.Number = 0, Hex(Err.Number)

Dim services, mode, startType
Set services = CreateObject("Halcyd.ServiceControlEx")
mode = CLng(0)
startType = CLng(0)
Err.Clear
services.QueryServiceMode "Halcyd", mode, startType
Check "service is queried", Err.Number = 0, Hex(Err.Number)
Check "the service itself runs", mode = 4, mode
Check "the service itself starts with the system", startType = 2, startType
Err.Clear
services.SetServiceMode "Halcyd", 1, -1
Check "a service outside the list is not stopped", Hex(Err.Number) = "FFFFFFFF", Hex(Err.Number)
mode = "held"
startType = Array(1, 2)
Err.Clear
services.QueryServiceMode "Halcyd", mode, startType
Check "variables that hold no numbers are left alone", mode = "held" And IsArray(startType), TypeName(mode)

Dim dns, text
Set dns = CreateObject("Halcyd.DNS")
Err.Clear
dns.EnableDHCP "{0}"
Check "settings without a session are a plain error", Hex(Err.Number) = "8007139F" Or Err.Number <> 0, Hex(Err.Number)
Err.Clear
dns.ConnectNetCfg "{00000000-0000-0000-0000-00000000DEAD}"
Check "unknown adapter is a plain error", Hex(Err.Number) = "80041017", Hex(Err.Number)
Err.Clear
dns.SetDNS "{0}", Array("192.0.2.1")
Check "a script's array is not an array of strings", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)
Err.Clear
dns.DisconnectNetCfg
Check "session is closed", Err.Number = 0, Hex(Err.Number)
WScript.Echo "done"
