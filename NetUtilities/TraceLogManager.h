#pragma once
// The product's trace service as this process sees it: a COM local server of another program.

#include <windows.h>
#include <oleauto.h>
#include <unknwn.h>

inline constexpr CLSID CLSID_TraceLogManager = {
    0x904D1B57, 0x4C3C, 0x4F54, {0xB4, 0x26, 0x1A, 0x62, 0xD5, 0xCA, 0xA8, 0xDE}};
inline constexpr IID IID_ITraceLogManager = {
    0x518242CA, 0x031C, 0x4F57, {0x88, 0xFE, 0x49, 0x27, 0x28, 0xB2, 0xB4, 0xE7}};

// Called from the logger thread only, a member of the multithreaded apartment.
struct __declspec(novtable) ITraceLogManager : public IUnknown
{
    // The level for sources that have none of their own.
    virtual HRESULT STDMETHODCALLTYPE GetGlobalLevel(unsigned short* level) = 0;
    // The level of one source (1 to 36); 0 means that the global level holds.
    virtual HRESULT STDMETHODCALLTYPE GetSourceLevel(unsigned short source, unsigned short* level) = 0;
    // Stores one line. The text stays the caller's.
    virtual HRESULT STDMETHODCALLTYPE WriteLine(unsigned short source, unsigned short level, BSTR text) = 0;
};
#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(ITraceLogManager, 0x518242CA, 0x031C, 0x4F57, 0x88, 0xFE, 0x49, 0x27, 0x28, 0xB2, 0xB4, 0xE7)
#endif
