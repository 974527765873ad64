// MessageTree: a message as the MIME library reads it, flat and in words, so that two messages can be compared.
// Owner: a test.  Failure: an empty list.
#pragma once

#include <string>
#include <vector>

#include <gmime/gmime.h>

namespace policyloader {

struct TreeNode {
    std::string path;  // "0", "0.1", ...
    std::string type;
    std::string name;     // of the file
    std::string text;     // the decoded content, of texts in UTF-8
    std::string charset;  // as declared
    std::string encoding;
    bool operator==(TreeNode const& other) const {
        return path == other.path && type == other.type && name == other.name && text == other.text;
    }
};

class MessageTree {
public:
    explicit MessageTree(std::string const& bytes) {
        g_mime_init();
        auto* const stream = g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size());
        auto* const parser = g_mime_parser_new_with_stream(stream);
        auto* const message = g_mime_parser_construct_message(parser, nullptr);
        if (message) {
            add(g_mime_message_get_mime_part(message), "0");
            g_object_unref(message);
        }
        g_object_unref(parser);
        g_object_unref(stream);
    }

    std::vector<TreeNode> nodes;

    TreeNode at(std::string const& path) const {
        for (auto const& node : nodes)
            if (node.path == path) return node;
        return {};
    }
    // The paths that differ, those of one tree only among them.
    std::vector<std::string> differences(MessageTree const& other) const {
        std::vector<std::string> paths;
        for (auto const& node : nodes)
            if (!(node == other.at(node.path))) paths.push_back(node.path);
        for (auto const& node : other.nodes)
            if (at(node.path).path.empty()) paths.push_back(node.path);
        return paths;
    }

private:
    static std::string Or(char const* text) { return text ? text : ""; }

    void add(GMimeObject* part, std::string const& path) {
        if (!part) return;
        TreeNode node{path, {}, {}, {}, {}, {}};
        auto* const type = g_mime_object_get_content_type(part);
        node.type =
            Or(g_mime_content_type_get_media_type(type)) + "/" + Or(g_mime_content_type_get_media_subtype(type));
        node.charset = Or(g_mime_object_get_content_type_parameter(part, "charset"));
        if (GMIME_IS_PART(part)) {
            node.name = Or(g_mime_part_get_filename(GMIME_PART(part)));
            node.encoding = Or(g_mime_content_encoding_to_string(g_mime_part_get_content_encoding(GMIME_PART(part))));
            node.text = GMIME_IS_TEXT_PART(part) ? TextOf(part) : ContentOf(part);
        }
        nodes.push_back(node);
        if (GMIME_IS_MULTIPART(part)) {
            auto* const parts = GMIME_MULTIPART(part);
            for (int i = 0; i < g_mime_multipart_get_count(parts); ++i)
                add(g_mime_multipart_get_part(parts, i), path + "." + std::to_string(i));
        }
        if (GMIME_IS_MESSAGE_PART(part) && g_mime_message_part_get_message(GMIME_MESSAGE_PART(part)))
            add(g_mime_message_get_mime_part(g_mime_message_part_get_message(GMIME_MESSAGE_PART(part))), path + ".0");
    }
    static std::string TextOf(GMimeObject* part) {
        char* const text = g_mime_text_part_get_text(GMIME_TEXT_PART(part));
        std::string copy(Or(text));
        g_free(text);
        return copy;
    }
    static std::string ContentOf(GMimeObject* part) {
        auto* const content = g_mime_part_get_content(GMIME_PART(part));
        if (!content) return "";
        auto* const stream = g_mime_stream_mem_new();
        g_mime_data_wrapper_write_to_stream(content, stream);
        auto* const bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream));
        std::string copy(reinterpret_cast<char const*>(bytes->data), bytes->len);
        g_object_unref(stream);
        return copy;
    }
};

}  // namespace policyloader
