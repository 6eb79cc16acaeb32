#pragma once
/// @file
/// What `notifymon doctor` has found, as it goes.
#include <cstdio>
#include <string>

/// Prints the findings and counts those that are not well. One thread.
class CFindings {
public:
    /// @{
    /// It is well; it may not be; it is not. strHint: what to do about it.
    void Ok(std::string const &strWhat) { Print("ok       " + strWhat); }
    void Warn(std::string const &strWhat, std::string const &strHint)
    {
        Print("warning  " + strWhat);
        Detail("do: " + strHint);
        ++m_cWarnings;
    }
    void Fail(std::string const &strWhat, std::string const &strHint)
    {
        Print("FAILURE  " + strWhat);
        Detail("do: " + strHint);
        ++m_cFailures;
    }
    /// @}
    /// More about the last one.
    void Detail(std::string const &strWhat) { Print("         " + strWhat); }

    /// The counts. True without a failure.
    bool Close()
    {
        Print(std::to_string(m_cFailures) + " failures, " + std::to_string(m_cWarnings) +
              " warnings");
        return m_cFailures == 0;
    }

private:
    static void Print(std::string const &strLine)
    {
        std::puts(strLine.c_str());
        std::fflush(stdout);
    }

    unsigned m_cWarnings = 0;
    unsigned m_cFailures = 0;
};
