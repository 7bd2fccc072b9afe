#pragma once

// "Global\" and the name. The result lives in one text of the function: it is valid until the next call, and two
// threads must not call at the same time.
[[nodiscard]] const wchar_t* GlobalObjectName(const wchar_t* name);
