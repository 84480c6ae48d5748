#pragma once

// While it lives, the codecs of the tests' unit use the reversed byte order.
class SwappedMode {
public:
    SwappedMode();
    ~SwappedMode();
    SwappedMode(const SwappedMode &) = delete;
    SwappedMode &operator=(const SwappedMode &) = delete;
};
