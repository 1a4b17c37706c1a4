#pragma once
#include "OrvAlgo/ProgressSignal.h"

// Fires the host's signal if there is one; what the slots return is ignored on purpose.
inline void FireProgress(OrvAlgo::ProgressSignal* signal, double percent, const QString& message, void* context)
{
    if (signal)
        (*signal)(percent, message, context);
}
