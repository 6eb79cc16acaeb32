#pragma once
/// @file
/// Agents that were copied. A copy borrows its source's link, threads, socket and mutex: it has them in its
/// fields and ends none of them. Those that are related so are in a list, which has a lock of its own, taken
/// under agents' mutexes or without them; it is empty as long as nobody copies an agent.
#include "agent/QOMANoAg.h"

/// What there is to do about copies; no object is ever made of it.
/// The list, see above. Any thread may call anything, except as said at each.
class CAgentCopies {
public:
    /// Copies every field of source to target, which holds neither link nor mutex. No other thread is inside
    /// either agent.
    static void Copy(CNotifyAgent &target, CNotifyAgent const &source);

    /// What an agent looks like without a link. Ends nothing.
    static void ForgetLink(CNotifyAgent &agent);

    /// If agent borrows its link: forgets it, and returns true.
    static bool LetGo(CNotifyAgent &agent);

    /// Every agent that has pLink forgets it. Called before its owner, who has no more, ends it.
    static void Disconnect(CDolRtl const *pLink);

    /// agent gives up its mutex for good, and closes it unless another agent has it.
    static void CloseMutex(CNotifyAgent const &agent);
};
