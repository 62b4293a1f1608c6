#ifndef TAVRO_DOCUMENT_TEST_SUPPORT_H
#define TAVRO_DOCUMENT_TEST_SUPPORT_H

#include "XMLHook.h"

#include <string>
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

#endif
