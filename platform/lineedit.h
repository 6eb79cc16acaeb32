#pragma once

/// @file
/// A prompt at the program's terminal: a line is edited there, while other threads print above it.

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Whether standard input and output are a terminal.
bool PlatIsTerminal();

/// Whether what is typed at the terminal is for this program: false while its shell runs it in the
/// background. Only where PlatIsTerminal.
bool PlatInForeground();

class CPlatLineEditorImpl;

/// Owns the terminal from Open to its destructor. Lines that were entered can be had back with the arrow
/// keys, Tab completes. While the program is in its shell's background nothing is read, nor is it stopped
/// for that.
class CPlatLineEditor {
public:
    /// Gives the words that may stand in place of the last one of strBefore, the text up to the cursor.
    /// Called on the thread that reads.
    using CompleteFn = std::function<std::vector<std::string>(std::string const &strBefore)>;

    CPlatLineEditor();
    /// Gives the terminal back as it was found. No thread may be inside Read.
    ~CPlatLineEditor();
    CPlatLineEditor(CPlatLineEditor const &) = delete;
    CPlatLineEditor &operator=(CPlatLineEditor const &) = delete;

    /// False when standard input and output are not both a terminal that can be edited at. So it is on
    /// Windows, where the console edits lines by itself. Once, before all else.
    bool Open(std::string const &strPrompt, CompleteFn complete);

    /// Waits for a line and gives it without its end. One thread. False when there is none any more:
    /// Close was called, or Ctrl-D was pressed in an empty line, or the terminal is gone.
    bool Read(std::string *pstrLine);

    /// Prints a line, above the prompt if there is one at this moment. Any thread, also when not open.
    /// Its control characters go to the terminal as they are.
    void Print(std::string const &strLine);

    /// Ends Read, now and in future. Any thread.
    void Close();

private:
    std::unique_ptr<CPlatLineEditorImpl> m_pImpl;
};
