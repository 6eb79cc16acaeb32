#include "platform/lineedit.h"

#include "platform/base.h"

#include <cstdio>

// The console edits, recalls and completes nothing of ours to improve on.

class CPlatLineEditorImpl {};

bool PlatIsTerminal()
{
    DWORD dwMode;
    return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &dwMode) &&
           GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &dwMode);
}

bool PlatInForeground()
{
    return true;
}

CPlatLineEditor::CPlatLineEditor() = default;
CPlatLineEditor::~CPlatLineEditor() = default;

bool CPlatLineEditor::Open(std::string const &, CompleteFn)
{
    return false;
}

bool CPlatLineEditor::Read(std::string *)
{
    return false;
}

void CPlatLineEditor::Print(std::string const &strLine)
{
    std::printf("%s\n", strLine.c_str());
    std::fflush(stdout);
}

void CPlatLineEditor::Close() {}
