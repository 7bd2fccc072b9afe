' A late-bound client of the adapter settings, on the lab's laptop. Methods that give a string back want a string by
' reference, which this language does not have; everything else is here. Arrays of strings are handed on as they are:
' the script engine under Wine cannot look into them.
Option Explicit
Const Adapter = "{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}"

Sub Check(what, condition, detail)
    If condition Then
        WScript.Echo "ok " & what
    Else
        WScript.Echo "not ok " & what & ": " & detail
    End If
End Sub

Sub Lab(words)
    Dim shell
    Set shell = CreateObject("WScript.Shell")
    Check "labctl " & words, shell.Run("""C:\Program Files\HalcydLab\labctl.exe"" " & words, 0, True) = 0, "failed"
End Sub

Sub Succeeds(what)
    Check what, Err.Number = 0, Hex(Err.Number) & " " & Err.Description
    Err.Clear
End Sub

Lab "load laptop"
Dim dns, servers, suffixes
Set dns = CreateObject("Halcyd.DNS")
On Error Resume Next

dns.ConnectNetCfg Adapter
Succeeds "session is opened"

dns.GetDNSSuffixSearchOrder Adapter, suffixes
Succeeds "suffixes are read"
Check "suffixes are an array of strings", VarType(suffixes) = 8200, VarType(suffixes)
dns.SetDNSSuffixSearchOrder Adapter, suffixes
Succeeds "an array that the service gave goes back to it as suffixes"
dns.SetDNS Adapter, suffixes
Check "names are no addresses: the method's own result is positive and no error here", Err.Number = 0, Hex(Err.Number)
Err.Clear

dns.EnableDHCP Adapter
Succeeds "DHCP is switched on"
dns.ReleaseDHCPLease Adapter
Succeeds "the lease is given back"
dns.RenewDHCPLease Adapter
Succeeds "the lease is renewed"
dns.SetWINS Adapter, "192.0.2.8", ""
Succeeds "WINS servers are set, the second one empty"
dns.SetDNSDomain Adapter, "script.example"
Succeeds "the domain is set"

dns.GetDNS Adapter, servers
Succeeds "servers are read"
Check "servers of DHCP are an array as well", VarType(servers) = 8200, VarType(servers)
dns.SetDNS Adapter, servers
Succeeds "an empty array gives the servers back to DHCP"

dns.SetGateways Adapter, servers, servers
Check "gateways are not offered", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)
Err.Clear
dns.EnableStatic Adapter, "192.0.2.9", "255.255.255.0"
Check "texts are no arrays of addresses", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)
Err.Clear
dns.DisconnectNetCfg
Succeeds "session is closed"
WScript.Echo "done"
