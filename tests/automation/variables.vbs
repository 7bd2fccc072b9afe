' A late-bound client of the adapter settings: every method, as far as a script's types reach. A script has no arrays of
' strings of its own; it gets them from the service, and can hand them back.
Option Explicit
Const Guid = "{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}"
Const OwnPath = "HKEY_LOCAL_MACHINE\SOFTWARE\QRLS\Sorvane\ScriptSettings"
Const StringArray = 8200
Dim dns, registry, shell, files, got, text, other, before

Sub Check(what, condition, detail)
    If condition Then
        WScript.Echo "ok " & what
    Else
        WScript.Echo "not ok " & what & ": " & detail
    End If
End Sub

' An array of strings, by way of a list in the registry.
Function Strings(list)
    Dim kind, data
    registry.SetRegistry "list", OwnPath, 7, list
    registry.QueryRegistry "list", OwnPath, kind, data
    Strings = data
End Function

' What the lab's machine holds now.
Function Machine()
    shell.Run "cmd /c ""C:\Program Files\HalcydLab\labctl.exe"" dump > C:\machine.json", 0, True
    Machine = files.OpenTextFile("C:\machine.json").ReadAll
End Function

Set shell = CreateObject("WScript.Shell")
Set files = CreateObject("Scripting.FileSystemObject")
shell.Run """C:\Program Files\HalcydLab\labctl.exe"" load laptop", 0, True
Set registry = CreateObject("Halcyd.NetRegistry")
Set dns = CreateObject("Halcyd.DNS")
On Error Resume Next

dns.ConnectNetCfg Guid
Check "session opens", Err.Number = 0, Hex(Err.Number)

dns.GetDNS Guid, before
Check "servers from DHCP are an array", Err.Number = 0 And VarType(before) = StringArray, Hex(Err.Number)
other = Strings("192.0.2.160,192.0.2.161")
dns.SetDNS Guid, other
Check "two servers are set", Err.Number = 0, Hex(Err.Number)
text = Machine()
Check "both have reached the machine", InStr(text, "192.0.2.160") > 0 And InStr(text, "192.0.2.161") > 0, "not in its state"
got = "text that was here"
dns.GetDNS Guid, got
Check "a variable with a text is replaced by the servers", VarType(got) = StringArray, VarType(got)
dns.SetDNS Guid, before
Check "the array from DHCP gives them back", Err.Number = 0, Hex(Err.Number)
text = Machine()
Check "no server is set any more", InStr(text, "192.0.2.160") = 0, "still in the machine's state"
dns.SetDNS Guid, got
Check "what was read can be set again", Err.Number = 0, Hex(Err.Number)
text = Machine()
Check "and is there again", InStr(text, "192.0.2.161") > 0, "not in the machine's state"
Err.Clear
dns.SetDNS Guid, "192.0.2.1"
Check "a text is no array", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)
Err.Clear
dns.SetDNS Guid, Nothing
Check "no object is no array", Err.Number <> 0, "no error"
Err.Clear
dns.SetDNS Guid
Check "a missing argument is a plain error", Err.Number <> 0, "no error"
Err.Clear
dns.SetDNS Guid, other, 3
Check "an argument too many is a plain error", Err.Number <> 0, "no error"

Err.Clear
dns.SetWINS Guid, "192.0.2.8", ""
Check "WINS servers are set", Err.Number = 0, Hex(Err.Number)
dns.SetDNSDomain Guid, "script.example"
Check "domain is set", Err.Number = 0, Hex(Err.Number)
other = Strings("one.example,two.example,three.example")
dns.SetDNSSuffixSearchOrder Guid, other
Check "suffixes are set", Err.Number = 0, Hex(Err.Number)
got = Empty
dns.GetDNSSuffixSearchOrder Guid, got
Check "suffixes come back", VarType(got) = StringArray, VarType(got)
text = Machine()
Check "suffixes and domain have reached the machine", InStr(text, "three.example") > 0 And InStr(text, "script.example") > 0, "not in its state"

Err.Clear
other = Strings("192.0.2.199")
got = Strings("255.255.255.0")
dns.EnableStatic Guid, other, got
Check "static address is set", Err.Number = 0, Hex(Err.Number)
text = Machine()
Check "static address has reached the machine", InStr(text, "192.0.2.199") > 0, "not in its state"
dns.EnableDHCP Guid
Check "DHCP is enabled", Err.Number = 0, Hex(Err.Number)
dns.ReleaseDHCPLease Guid
Check "lease is released", Err.Number = 0, Hex(Err.Number)
dns.RenewDHCPLease Guid
Check "lease is renewed", Err.Number = 0, Hex(Err.Number)
Err.Clear
dns.SetGateways Guid, other, other
Check "gateways are refused", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)

' Outputs that are texts by their type: a variable of a script is none. Whether the system converts it or says so, the
' variable never holds anything else than the answer or what it held.
Err.Clear
text = "held"
dns.GetDNSDomain Guid, text
Check "domain is read or the variable's type refused", text = "script.example" Or (Err.Number <> 0 And text = "held"), Hex(Err.Number) & " " & text
Err.Clear
text = "held"
dns.GetDefaultGateway Guid, text
Check "gateway is read or the variable's type refused", text = "192.0.2.1" Or (Err.Number <> 0 And text = "held"), Hex(Err.Number) & " " & text
Err.Clear
text = "held"
dns.GetIpAddress Guid, text
Check "address is read or the variable's type refused", text <> "" And (text <> "held" Or Err.Number <> 0), Hex(Err.Number) & " " & text
Err.Clear
text = "held"
got = "held"
dns.GetWINS Guid, text, got
Check "WINS servers are read or the variables' types refused", text = "192.0.2.8" Or (Err.Number <> 0 And text = "held"), Hex(Err.Number) & " " & text

Err.Clear
dns.DisconnectNetCfg
Check "session is closed", Err.Number = 0, Hex(Err.Number)
Err.Clear
dns.GetDNS Guid, got
Check "without a session a getter is a plain error", Hex(Err.Number) = "8007139F", Hex(Err.Number)
registry.DeleteRegistryNode OwnPath
WScript.Echo "done"
