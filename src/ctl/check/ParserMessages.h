#pragma once

#include <string>
#include <vector>

/// Keeps what libxml2 says about a document, in place of standard error, for the length of a scope. One at a time, on
/// the main thread.
class ParserMessages {
public:
    struct Message {
        bool isFatal; ///< the document is no XML because of this
        int line;
        std::string text; ///< a sentence without a full stop
    };

    ParserMessages();
    ~ParserMessages();
    ParserMessages(const ParserMessages&) = delete;
    ParserMessages& operator=(const ParserMessages&) = delete;

    /// The first ones: what the parser says after a fault mostly follows from it.
    const std::vector<Message>& list() const { return messages; }
    void add(const Message& message);

private:
    std::vector<Message> messages;
};
