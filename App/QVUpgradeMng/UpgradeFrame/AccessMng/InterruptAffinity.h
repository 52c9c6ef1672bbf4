/// Which cores take the interrupts of radio and audio. Stateless; any thread.
#pragma once

namespace InterruptAffinity {

/// Pins the interrupts to their usual cores, or, with `change`, frees them for all cores while the network
/// needs them. They are pinned even when the calling thread was asked to stop. A failure is logged.
void _SetSmpAffinityToCpu0(bool change);

}  // namespace InterruptAffinity
