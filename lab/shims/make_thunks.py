#!/usr/bin/env python3
"""Writes the forwarding half of a shim: a C file of thunks and a module definition file.

    make_thunks.py --builtin iphlpapi.dll --attach NAME --source OUT.c --definition OUT.def SHIM-SOURCES...

Every export of the built-in DLL that no source replaces (SHIM_EXPORT(type, Name)) becomes a thunk that finds its target
in the built-in DLL at the first call and jumps there ever after.
"""
import argparse
import re
import struct
from pathlib import Path


def export_names(image):
    """The names in a 64-bit PE file's export table."""
    pe = struct.unpack_from('<I', image, 0x3C)[0]
    sections, optional_size = struct.unpack_from('<H', image, pe + 6)[0], struct.unpack_from('<H', image, pe + 20)[0]
    if image[pe:pe + 4] != b'PE\0\0' or struct.unpack_from('<H', image, pe + 24)[0] != 0x20B:
        raise SystemExit('not a 64-bit PE file')
    table = []
    for i in range(sections):
        size, address, raw_size, raw = struct.unpack_from('<IIII', image, pe + 24 + optional_size + 40 * i + 8)
        table.append((address, max(size, raw_size), raw))

    def offset(rva):
        for address, size, raw in table:
            if address <= rva < address + size:
                return rva - address + raw
        raise SystemExit(f'address {rva:#x} lies in no section')

    directory = offset(struct.unpack_from('<I', image, pe + 24 + 112)[0])
    count, _, names = struct.unpack_from('<III', image, directory + 24)
    found = []
    for i in range(count):
        at = offset(struct.unpack_from('<I', image, offset(names) + 4 * i)[0])
        found.append(image[at:image.index(b'\0', at)].decode('ascii'))
    return found


RESOLVE = r'''
/* First call of a thunk: on the stack lie its number and the caller's return address. All argument registers are kept,
   the target is looked up and entered into the thunk's slot, and the call goes on as if it had gone there at once. */
__asm__(
    ".text\n"
    "LabThunkResolve:\n"
    "    pushq %rcx\n    pushq %rdx\n    pushq %r8\n    pushq %r9\n"
    "    subq $0x60, %rsp\n"
    "    movups %xmm0, 0x20(%rsp)\n    movups %xmm1, 0x30(%rsp)\n"
    "    movups %xmm2, 0x40(%rsp)\n    movups %xmm3, 0x50(%rsp)\n"
    "    movl 0x80(%rsp), %ecx\n"
    "    call LabShimResolve\n"
    "    movups 0x20(%rsp), %xmm0\n    movups 0x30(%rsp), %xmm1\n"
    "    movups 0x40(%rsp), %xmm2\n    movups 0x50(%rsp), %xmm3\n"
    "    addq $0x60, %rsp\n"
    "    popq %r9\n    popq %r8\n    popq %rdx\n    popq %rcx\n"
    "    addq $8, %rsp\n"
    "    jmp *%rax\n"
);
'''


def thunk(number):
    return (f'__asm__(".text\\n.globl LabThunk{number}\\nLabThunk{number}:\\n    jmp *LabThunkSlot{number}(%rip)\\n"\n'
            f'        "LabThunkFirst{number}:\\n    pushq ${number}\\n    jmp LabThunkResolve\\n"\n'
            f'        ".data\\n.balign 8\\nLabThunkSlot{number}: .quad LabThunkFirst{number}\\n.text\\n");\n')


def source_text(library, attach, forwarded):
    names = ''.join(f'    "{name}",\n' for name in forwarded)
    addresses = ''.join(f'        ".quad LabThunkSlot{i}\\n"\n' for i in range(len(forwarded)))
    # The slots' addresses as one table, so that the resolver written in C++ can fill them in by number.
    return f'''/* Generated from the exports of the built-in {library}; do not edit. */
#include <windows.h>

const wchar_t LabShimLibrary[] = L"{library}";
const unsigned LabShimCount = {len(forwarded)};
const char* const LabShimNames[] = {{
{names}    0
}};
__asm__(".data\\n.balign 8\\n.globl LabShimSlots\\nLabShimSlots:\\n"
{addresses}        ".text\\n");
{RESOLVE}
{''.join(thunk(i) for i in range(len(forwarded)))}
void LabShimPin(HINSTANCE self);
{f'void {attach}(void);' if attach else ''}

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, void* reserved)
{{
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH)
    {{
        LabShimPin(self);
        {f'{attach}();' if attach else ''}
    }}
    return TRUE;
}}
'''


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--builtin', type=Path, required=True)
    parser.add_argument('--attach', default='')
    parser.add_argument('--source', type=Path, required=True)
    parser.add_argument('--definition', type=Path, required=True)
    parser.add_argument('sources', nargs='*', type=Path)
    arguments = parser.parse_args()

    replaced = []
    for path in arguments.sources:
        replaced += re.findall(r'^SHIM_EXPORT\([^,]+,\s*(\w+)\)', path.read_text(encoding='utf-8'), re.MULTILINE)
    twice = {name for name in replaced if replaced.count(name) > 1}
    if twice:
        raise SystemExit('replaced twice: ' + ', '.join(sorted(twice)))
    forwarded = [name for name in export_names(arguments.builtin.read_bytes()) if name not in replaced]

    library = arguments.builtin.name
    arguments.source.write_text(source_text(library, arguments.attach, forwarded), encoding='utf-8')
    lines = [f'    {name}=Shim_{name}' for name in sorted(replaced)]
    lines += [f'    {name}=LabThunk{number}' for number, name in enumerate(forwarded)]
    arguments.definition.write_text(f'LIBRARY "{library}"\nEXPORTS\n' + '\n'.join(lines) + '\n', encoding='utf-8')


if __name__ == '__main__':
    main()
