// Visibility of the platform's own interface (symbol version RYX_PRIVATE): for the switch side, its
// feeds and the tests of the same build. Agents never see it.
#pragma once

#define RYX_PRIVATE __attribute__((visibility("default")))
