/* SPDX-License-Identifier: MIT */
#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plain_strings.h"

namespace keel_test {

/* Configuration files read and edited as their contracts tell, with no regard to speed: what a test
 * holds the library's own functions against. Content goes in, content or what was found comes out;
 * that a file cannot be opened is the test's own matter. */

/* ---- Settings, one a line ------------------------------------------------------------------- */

/* A line, or 1023 characters of one. */
struct plain_piece {
    std::string all;    /* its newline included */
    std::string text;   /* up to the first NUL byte */
    std::string hidden; /* from there on, without the newline */
};

inline plain_piece plain_piece_of(const std::string &all) {
    const std::string text = all.substr(0, all.find('\0'));
    std::string hidden = all.substr(text.size());
    if (hidden.ends_with('\n'))
        hidden.pop_back();
    return {all, text, hidden};
}

inline std::vector<plain_piece> plain_pieces(const std::string &content) {
    std::vector<plain_piece> pieces;
    for (std::size_t next = 0; next < content.size(); next += pieces.back().all.size()) {
        const std::size_t newline = std::min(content.find('\n', next), content.size());
        pieces.push_back(
            plain_piece_of(content.substr(next, std::min(newline + 1 - next, 1023UL))));
    }
    return pieces;
}

/* One edit; for one content only. */
class plain_edit {
  public:
    enum number { modify = 1, insert = 2, remove = 3 };

    plain_edit(int operation, const std::string &key, char separator, const std::string &value)
        : operation_(operation), separator_(separator), prefix_(key + separator),
          target_(prefix_ + value) {}

    std::string of(const std::string &content) {
        for (const plain_piece &piece : plain_pieces(content))
            take(piece);
        if (operation_ == insert && state_ == already_there)
            written_.replace(remembered_, target_.size(), target_.size(), ' ');
        if (operation_ == insert && state_ == not_seen)
            put(target_);
        return written_;
    }

  private:
    enum insert_state { ahead_of_key, already_there, not_seen };

    void take(const plain_piece &piece) {
        if (state_ == already_there) {
            written_ += piece.all;
            return;
        }
        const std::string line = plain_trim4(piece.text, separator_).value_or(piece.text);
        if (line.empty() || line.front() == '#' || keeps(line))
            put(line.substr(0, line.find('\n')) + piece.hidden);
    }

    bool keeps(const std::string &line) {
        if (operation_ == remove)
            return line != target_;
        if (!line.starts_with(prefix_))
            return true;
        if (operation_ == modify) {
            put(target_);
            return false;
        }
        if (operation_ == insert && state_ == not_seen) {
            state_ = ahead_of_key;
            remembered_ = written_.size();
            put(target_);
        }
        if (operation_ == insert && line == target_)
            state_ = already_there;
        return true;
    }

    void put(const std::string &line) { written_ += line + '\n'; }

    int operation_;
    char separator_;
    std::string prefix_;
    std::string target_;
    insert_state state_ = not_seen;
    std::size_t remembered_ = 0;
    std::string written_;
};

inline std::string plain_edited(const std::string &content, int operation, const std::string &key,
                                char separator, const std::string &value) {
    return plain_edit(operation, key, separator, value).of(content);
}

/* The value, not yet cut to the buffer. */
inline std::optional<std::string> plain_flookup(const std::string &content, const std::string &key,
                                                char separator) {
    for (const plain_piece &piece : plain_pieces(content)) {
        const std::string line = plain_trim2(piece.text);
        if (line.empty() || line.front() == '#')
            continue;
        for (const std::string &prefix : {key + separator, key + ' ' + separator})
            if (line.starts_with(prefix))
                return plain_trim1(line.substr(prefix.size()));
    }
    return std::nullopt;
}

/* Whether an item is taken that comes with this index. */
using plain_takes = std::function<bool(const std::string &item, int index)>;

class plain_block {
  public:
    plain_block(std::string key, plain_takes takes)
        : key_(std::move(key)), takes_(std::move(takes)) {}

    int read(const std::string &content) {
        for (const plain_piece &piece : plain_pieces(content)) {
            const std::string line = plain_trim2(piece.text.substr(0, piece.text.find('#')));
            if (!line.empty() && !take(line))
                break;
        }
        return taken_;
    }

  private:
    enum block_state { looking, key_seen, inside, closed };

    /* False where reading ends. */
    bool take(std::string line) {
        if (state_ == closed)
            return false;
        if (state_ == looking) {
            if (!line.starts_with(key_))
                return true;
            state_ = key_seen;
            line = plain_trim1(line.substr(key_.size()));
            if (!line.starts_with('{'))
                return true;
        }
        if (state_ == key_seen) {
            if (!line.starts_with('{')) {
                taken_ = -1;
                return false;
            }
            state_ = inside;
            line = plain_trim1(line.substr(1));
        }
        take_item(line);
        return true;
    }

    void take_item(std::string line) {
        if (line.ends_with('}')) {
            state_ = closed;
            line = plain_trim1(line.substr(0, line.size() - 1));
        }
        if (!line.empty() && takes_(line, taken_))
            taken_++;
    }

    std::string key_;
    plain_takes takes_;
    block_state state_ = looking;
    int taken_ = 0;
};

/* ---- Settings by a format ------------------------------------------------------------------- */

/* The lines of a file without their newlines, nor the carriage returns before those. */
inline std::vector<plain_piece> plain_lines(const std::string &content) {
    std::vector<plain_piece> lines;
    for (std::size_t next = 0; next < content.size();) {
        const std::size_t end = std::min(content.find('\n', next), content.size());
        std::string line = content.substr(next, end - next);
        if (end < content.size() && line.ends_with('\r'))
            line.pop_back();
        lines.push_back(plain_piece_of(line));
        next = end + 1;
    }
    return lines;
}

/* What strtok_r() gives of a text from `from` on. */
struct plain_token {
    std::string text;
    std::size_t end;  /* behind it: a separator, or the end of the text */
    std::size_t next; /* where the rest begins */
};

inline std::optional<plain_token> plain_token_of(const std::string &text, std::size_t from,
                                                 const std::string &separators) {
    const std::size_t begin = text.find_first_not_of(separators, from);
    if (begin == text.npos)
        return std::nullopt;
    const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
    return plain_token{text.substr(begin, end - begin), end, std::min(end + 1, text.size())};
}

/* What there is to scan. */
inline std::optional<std::string> plain_lookup_value(const std::string &content,
                                                     const std::string &key,
                                                     const std::string &separators) {
    for (const plain_piece &read : plain_lines(content)) {
        const std::string line = plain_trim2(read.text.substr(0, read.text.find('#')));
        const auto token = plain_token_of(line, 0, separators);
        if (token && plain_trim1(token->text) == key)
            return line.substr(token->next);
    }
    return std::nullopt;
}

/* Makes a new value of the old one. */
using plain_change = std::function<std::string(const std::string &value)>;

inline std::string plain_changed(const std::string &content, const std::string &key,
                                 const std::string &separators, const plain_change &change) {
    std::string written;
    for (const plain_piece &read : plain_lines(content)) {
        std::string line = plain_trim2(read.text);
        const auto token =
            line.starts_with('#') ? std::nullopt : plain_token_of(line, 0, separators);
        if (token && plain_trim1(token->text) == key)
            line = key + line[token->next - 1] + change(line.substr(token->next));
        written += line + read.hidden + '\n';
    }
    return written;
}

inline std::string plain_replaced(const std::string &content, const std::string &key,
                                  const std::string &separators, const std::string &text) {
    return plain_changed(content, key, separators, [&](const std::string &) { return text; });
}

inline std::string plain_field_replaced(const std::string &content, const std::string &key,
                                        const std::string &separators,
                                        const std::string &field_separators, int index,
                                        const std::string &text) {
    return plain_changed(content, key, separators, [&](const std::string &value) {
        std::string fields;
        int count = 0;
        auto field = plain_token_of(value, 0, field_separators);
        for (; field; field = plain_token_of(value, field->next, field_separators)) {
            fields += ++count == index ? text : field->text;
            if (field->next < value.size())
                fields += value[field->end];
        }
        return fields;
    });
}

} // namespace keel_test
