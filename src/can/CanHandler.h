#ifndef TAVRO_CANHANDLER_H
#define TAVRO_CANHANDLER_H

#include "CanDecoder.h"
#include "CanHook.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Reads every frame of one CAN interface on a thread of its own, stamps it with the kernel's
// receive time and offers it to the decoders registered per hook. One handler per interface
// name, process-wide (forInterface), so services that read one interface share its reader.
//
// With TAVRO_VCAN_DIR set in the environment, interface NAME is the virtual bus directory
// $TAVRO_VCAN_DIR/NAME: the reader binds a Unix datagram socket of its own in it, and a
// sender writes each 16-byte can_frame record to every socket there. Only the opening of the
// socket differs from SocketCAN.
//
// An interface that vanishes while read (unregistered, or its bus directory removed) is
// logged once and opened again every second until it is back; one taken down stays bound
// and delivers again once it is up.
class CanHandler {
public:
    // The registry's handler for name, created (not started) on first use. Handlers stay
    // until the process ends.
    static CanHandler* forInterface(const std::string& name);

    explicit CanHandler(const std::string& name);
    CanHandler(const CanHandler&) = delete;
    CanHandler& operator=(const CanHandler&) = delete;
    // Stops the reader and closes the socket.
    virtual ~CanHandler();

    // Safe while the reader runs: waits for a dispatch in progress. Not from inside a hook
    // or decoder call of this handler.
    void addDecoder(CanHook* hook, CanDecoder* decoder);
    // Unregisters hook and its decoders; waits for a dispatch in progress, so that on return
    // neither is used any more. Returns the number of hooks left. Not from inside a hook or
    // decoder call of this handler.
    size_t removeHook(CanHook* hook);
    // The end of one service on a shared handler: removes its hook and stops the reader
    // when no other hook is left.
    void release(CanHook* hook);

    // 0 when running (also when already running), 1 when the socket or thread failed.
    int start();
    // Ends the reader (within its 10 ms receive time-out) and closes the socket; start opens a
    // new one.
    void stop();

    const std::string& getInterface() const { return interface; }
    bool isRunning() const { return running; }

    // What the reader does with one received frame: offers it to each hook's decoders in
    // registration order and hands the decoded frames, stamped, to the hook.
    void dispatch(const can_frame& frame, uint64_t timestamp);

private:
    // report: log why opening failed (not while retrying a lost interface every second).
    bool openSocket(bool report = true);
    void closeSocket();
    void halt();
    void readLoop();
    // True when the virtual bus socket file is no longer the one bound (directory removed).
    bool boundPathLost() const;

    // Owned by the reader thread while it runs (it reopens a lost interface), else by
    // controlMutex.
    int socketFd = -1;
    const std::string interface;
    std::thread thread;
    std::map<CanHook*, std::vector<CanDecoder*>> hooks;
    std::atomic<bool> running{false};
    std::mutex hookMutex;    // the hook table; held by the reader during one dispatch
    std::mutex controlMutex; // start, stop and the socket
    std::string boundPath;   // the virtual bus socket, removed on close
    ino_t boundInode = 0;    // of boundPath right after bind
};

#endif
