#ifndef TAVRO_CANHOOK_H
#define TAVRO_CANHOOK_H

class DecodedFrame;

// A service that receives decoded CAN frames. Called from the reader thread of every
// interface it registered with, possibly several at once. Never deleted through this
// interface.
class CanHook {
public:
    // The frame is valid only during the call; copy what is kept.
    virtual void handleFrame(DecodedFrame* frame) = 0;

protected:
    ~CanHook() = default;
};

#endif
