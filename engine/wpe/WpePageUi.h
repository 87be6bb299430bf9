// The page's requests to the user interface, answered alike by both engine
// ports: WPE WebKit and WebKitGTK share this part of the WebKit API, and the
// WebKitGTK port builds this file against its own headers.
#pragma once

#include "engine/port/EnginePort.h"

#include <string>

typedef struct _WebKitScriptDialog WebKitScriptDialog;
typedef struct _WebKitHitTestResult WebKitHitTestResult;

namespace SLF_ChromiumEmbeddedFramework {

// Tells the client's dialog handler of a script dialog (origin, type,
// message, default prompt) and ends the dialog unanswered: no dialog can be
// shown off screen, so confirm is false, prompt null, and leaving the page is
// always allowed. Returns true: WebKit shows none of its own.
bool AnswerScriptDialog(WebKitScriptDialog* dialog, EngineClient* client, const EngineBrowserRef& browser,
                        const std::string& originUrl);

// The cursor for the element under the pointer.
EngineCursorType CursorForHitTest(WebKitHitTestResult* hit);

} // namespace SLF_ChromiumEmbeddedFramework
