// Computing a layer together with the ones behind it. Some layers do the same to each element and
// work in place: they publish that as a step. A layer that can run steps on what it has just
// computed takes those of the layers that follow it immediately on the same storage, so nobody
// can have seen the values in between. Links say who may; each pass asks anew who can.
#pragma once

#include <cstddef>

#include "graph/BaseLayer.h"

namespace ravu {

struct Network;

// Links every layer that takes steps with its followers. Called after each set-up and shape change,
// when all Blobs are bound.
void link_followers(Network& network);

void unlink_followers(Network& network);

// Appends the steps of the followers to `steps`, up to the first one that cannot be run on the
// producer's last output as things stand now: its parameters are not for `channels` (0: it must
// have none), or it has other elements. Returns how many followers that are.
std::size_t collect_steps(const BaseLayer& producer, std::size_t channels,
                          kernels::ElementSteps& steps);

// Lets the pass leave out the first `count` followers, whose steps have been run.
void mark_done(const BaseLayer& producer, std::size_t count);

// The Forward of the layers that publish a step: its own and its followers' in one pass.
void forward_steps(const BaseLayer& layer);

}  // namespace ravu
