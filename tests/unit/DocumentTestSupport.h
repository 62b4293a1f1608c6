#ifndef TAVRO_DOCUMENT_TEST_SUPPORT_H
#define TAVRO_DOCUMENT_TEST_SUPPORT_H

#include "XMLHook.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Keeps every document delivered to it, from one thread.
struct RecordingHook : XMLHook {
    void deliver(std::stringstream& document) override { documents.push_back(document.str()); }
    std::vector<std::string> documents;
};

// Text between the first start tag of that name and the next end tag of that name.
inline std::string element(const std::string& document, const std::string& name) {
    const std::string open = "<" + name + ">";
    const size_t begin = document.find(open);
    const size_t end = document.find("</" + name + ">", begin);
    if (begin == std::string::npos || end == std::string::npos)
        return "(missing " + name + ")";
    return document.substr(begin + open.size(), end - begin - open.size());
}

// Runs work on a thread of its own and tells whether it finished within a generous bound.
// A hang ends the whole test program, as the work may still use the caller's objects.
inline bool finishesSoon(std::function<void()> work) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([work, done] {
        work();
        done->set_value();
    }).detach();
    if (finished.wait_for(std::chrono::seconds(30)) == std::future_status::ready)
        return true;
    fprintf(stderr, "work did not finish: giving up\n");
    std::_Exit(1);
}

#endif
