// The control interface under /__emu/, served only with --control: health, reset,
// the outbox, QR-login approval, shared links, the operation log, fault rules, batch
// task behaviour and the current one-time password of a user.
#pragma once

#include "EmuContext.h"
#include "Router.h"

#include <functional>

class ControlRoutes
{
public:
    // `reset(toSeed)` empties the drive, and imports the seed again when asked.
    ControlRoutes(EmuContext& context, std::function<void(bool toSeed)> reset);
    void install(Router& router);

private:
    EmuContext& m_context;
    std::function<void(bool)> m_reset;
};
