#pragma once
/// @file
/// Scripts of mfpsim: commands one a line, with blocks that repeat, cases, times and variables.

#include "tools/mfpsim_commands.h"

#include <functional>
#include <string>
#include <vector>

/// What became of a part of a script that stands for itself.
struct ScenarioCase {
    std::string strName;    ///< behind "case", else the script's
    std::string strFailure; ///< "FILE:LINE: REASON", empty for none
    double dSeconds = 0;    ///< that it took
};

/// A script. One thread.
class CScenario {
public:
    using AnswerFn = std::function<void(CommandResult const &)>; ///< of each line that was done
    using FailureFn =
        std::function<void(std::string const &)>; ///< "FILE:LINE: REASON" and more, in lines

    /// Reads the file, puts the environment's variables in and looks at its blocks. False with the reason,
    /// "FILE:LINE: ..." if a line is at fault.
    bool Load(std::string const &strFile, std::string *pstrError);

    /// Carries it out, until CSimulation::Quit at the longest. A line that fails ends its case; without cases,
    /// the script. True when none failed.
    bool Run(CSimulation &simulation, AnswerFn const &onAnswer, FailureFn const &onFailure);

    /// Writes what became of its cases as JUnit's XML. False with the reason.
    bool WriteJUnit(std::string const &strFile, std::string *pstrError) const;

private:
    struct Line {
        int nNumber;          // in the file
        std::string strText;  // with its variables in place
        std::size_t nEnd = 0; // of a "repeat": the place of its "end"
        unsigned cTimes = 0;  // of a "repeat"
    };

    std::string Place(Line const &line) const;
    bool Insert(Line &line, std::string *pstrError) const;
    bool FindBlocks(std::string *pstrError);
    bool RunLines(std::size_t nFirst, std::size_t nEnd);
    bool RunLine(Line const &line);
    bool RunAt(Line const &line, std::vector<std::string> const &words);
    bool Fail(Line const &line, CommandResult const &result);
    void BeginCase(std::string strName);
    void EndCase();
    std::size_t NextCase(std::size_t n) const;

    std::string m_strFile;
    std::vector<Line> m_lines;
    std::vector<ScenarioCase> m_cases;

    // While it runs.
    CSimulation *m_pSimulation = nullptr;
    CCommandSession *m_pSession = nullptr;
    AnswerFn m_onAnswer;
    FailureFn m_onFailure;
    LinkTime m_begun;
    LinkTime m_caseBegun;
};
