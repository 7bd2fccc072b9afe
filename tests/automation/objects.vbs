' A late-bound client: every class by its ProgID, the monitor's property, and plain errors where a member gives one.
Option Explicit
Dim held, name, object, failures

Sub Check(what, condition, detail)
    If condition Then
        WScript.Echo "ok " & what
    Else
        WScript.Echo "not ok " & what & ": " & detail
    End If
End Sub

Set held = CreateObject("Scripting.Dictionary")
For Each name In Array("DNS", "NetRegistry", "ServiceControlEx", "VNIC", "NetMonSv")
    On Error Resume Next
    Err.Clear
    Set object = CreateObject("Halcyd." & name)
    Check "class " & name & " by its ProgID", Err.Number = 0, Hex(Err.Number)
    If Err.Number = 0 Then held.Add name, object
    Err.Clear
    Set object = CreateObject("Halcyd." & name & ".1")
    Check "class " & name & " by its ProgID with version", Err.Number = 0, Hex(Err.Number)
    On Error GoTo 0
Next

Dim monitor, other
Set monitor = held("NetMonSv")
On Error Resume Next
Err.Clear
monitor.FilterMask = 4711
Check "property is written", Err.Number = 0, Hex(Err.Number)
Set other = CreateObject("Halcyd.NetMonSv")
Check "all clients share one monitor", other.FilterMask = 4711, other.FilterMask
Check "monitor is closed at first", monitor.IsOpen = False, monitor.IsOpen
Err.Clear
monitor.Open
Check "monitor opens", Err.Number = 0, Hex(Err.Number)
Check "monitor says that it is open", monitor.IsOpen = True, monitor.IsOpen
Err.Clear
monitor.Close
Check "monitor closes", Err.Number = 0, Hex(Err.Number)
Err.Clear
monitor.NoSuchMember
Check "unknown member is a plain error", Err.Number = 438, Err.Number
Err.Clear
held("DNS").SetGateways "{0}", Array("1.2.3.4"), Array(1)
Check "SetGateways is refused", Hex(Err.Number) = "8000FFFF", Hex(Err.Number)
Err.Clear
held("VNIC").RouteCommand "print"
Check "virtual adapter control is not there yet", Err.Number <> 0, "no error"
Err.Clear
Set object = CreateObject("Halcyd.SimpleSink")
Check "SimpleSink is not reached by its ProgID", Err.Number <> 0, "created"
WScript.Echo "done"
