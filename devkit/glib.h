// SPDX-License-Identifier: MIT
// GLib's objects, texts and errors for C++.
#pragma once

#include <gio/gio.h>

#include <string>

namespace tevrol {

// Deleters for std::unique_ptr.
struct GObjectUnref {
    void operator()(gpointer object) const {
        g_object_unref(object);
    }
};
struct GVariantUnref {
    void operator()(GVariant* value) const {
        g_variant_unref(value);
    }
};

// Frees `text` and returns its content. Empty if it is null.
inline std::string TakeText(gchar* text) {
    std::string content = text == nullptr ? "" : text;
    g_free(text);
    return content;
}

// Frees `error` and returns its message.
inline std::string TakeMessage(GError* error) {
    std::string message = error == nullptr ? "unknown error" : error->message;
    g_clear_error(&error);
    return message;
}

}  // namespace tevrol
