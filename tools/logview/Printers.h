// What becomes of the records: lines for people, or JSON.
#pragma once

#include "tools/logview/Output.h"
#include "tools/logview/RecordStream.h"

// The lines as they stand, and a line feed for a file that ends without one.
class PlainPrinter : public RecordSink {
public:
    // With color, level letter and function name are coloured by the level, separators and notices set apart. With
    // escape, control characters other than tab and line feed are shown as "\x1B", so that no log reprograms a
    // terminal.
    PlainPrinter(Output& output, bool color, bool escape) : output(output), color(color), escape(escape) {}

    void Take(const LogRecord& record) override;
    void Settle() override { output.Flush(); }
    void Finish() override { output.Flush(); }

private:
    void Print(std::string_view bytes);
    void PrintColored(const char* code, std::string_view bytes);
    void PrintFirstLine(const LogLine& line, std::string_view bytes);

    Output& output;
    const bool color;
    const bool escape;
};

// One object a line. An entry has time, thread, process, level, function and text; a notice has notice, with time,
// thread and process in the case of disk space. Lines that go on with neither, as at the head of a file, or that came
// late, have text alone. Separators, rules and blank lines at the end of a text are left out. What isn't valid UTF-8
// becomes U+FFFD.
class JsonPrinter : public RecordSink {
public:
    explicit JsonPrinter(Output& output) : output(output) {}

    void Take(const LogRecord& record) override;
    void Settle() override;
    void Finish() override { Settle(); }

private:
    void Open(const LogLine& line);
    void Close();
    void AppendText(std::string_view text);

    Output& output;
    bool open = false;     // the text of an object is under way
    size_t lineFeeds = 0;  // held back at the end of that text
};

// text as the inside of a JSON string.
void AppendJson(Output& output, std::string_view text);

// text with its control characters as "\x1B".
void AppendEscaped(Output& output, std::string_view text);
