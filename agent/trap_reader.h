#pragma once
/// @file
/// Drains of the access object that run on a client's thread, which its destructor knows nothing of.
class CDolRtl;

/// Waits until no such drain uses the link any more. Called by Shutdown once no agent refers to the link,
/// so that no further drain begins and those in progress end after the trap at hand.
void WaitForDrains(CDolRtl const *pDolRtl);
