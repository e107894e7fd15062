#pragma once
// The attribute names that register an event handler in HTML, XML or SVG. A read-only table in the
// order in which a tag is searched for them; any thread.

#include <array>
#include <string_view>

// The misspelled "onanimationand" and the repeated names are deliberate parts of the table.
// clang-format off
inline constexpr std::array<std::string_view, 116> HTMLEventHandlers{
    "onabort", "onafterprint", "onanimationand", "onanimationiteration", "onanimationstart",
    "onbeforeprint", "onbeforeunload", "onblur", "oncanplay", "oncanplaythrough", "onchange",
    "onclick", "oncontextmenu", "oncopy", "oncut", "oncuechange", "ondblclick", "ondrag",
    "ondragend", "ondragenter", "ondragleave", "ondragover", "ondragstart", "ondrop",
    "ondurationchange", "onemptied", "onended", "onerror", "onfocus", "onfocusin", "onfocusout",
    "onfullscreenchange", "onfullscreenerror", "onhashchange", "oninput", "oninvalid",
    "onkeydown", "onkeypress", "onkeyup", "onload", "onloadeddata", "onloadedmetadata",
    "onloadstart", "onmessage", "onmousedown", "onmouseenter", "onmouseleave", "onmousemove",
    "onmouseover", "onmouseout", "onmouseup", "onmousewheel", "onoffline", "ononline", "onopen",
    "onpagehide", "onpageshow", "onpaste", "onpause", "onplay", "onplaying", "onpopstate",
    "onprogress", "onratechange", "onresize", "onreset", "onscroll", "onsearch", "onseeked",
    "onseeking", "onselect", "onshow", "onstalled", "onstorage", "onsubmit", "onsuspend",
    "ontimeupdate", "ontoggle", "ontouchcancel", "ontouchend", "ontouchmove", "ontouchstart",
    "ontransitionend", "onunload", "onvolumechange", "onwaiting", "onwheel", "onresize",
    "onscroll", "onzoom", "onfocusin", "onfocusout", "onactivate", "onbegin", "onend",
    "onrepeat", "onpointerover", "onpointerenter", "onpointerdown", "pointer-events",
    "onpointermove", "onpointerup", "onpointercancel", "onpointerout", "onpointerleave",
    "onpointerrawupdate", "ongotpointercapture", "onlostpointercapture", "ev:event",
    "ev:observer", "ev:target", "ev:handler", "ev:phase", "ev:propagate", "ev:defaultAction",
    "",
};
// clang-format on
static_assert(HTMLEventHandlers.back().empty());  // the end of the list
