#include "engine/wpe/WpePageUi.h"

#include <wpe/webkit.h>

namespace SLF_ChromiumEmbeddedFramework {

bool AnswerScriptDialog(WebKitScriptDialog* dialog, EngineClient* client, const EngineBrowserRef& browser,
                        const std::string& originUrl)
{
    const WebKitScriptDialogType type = webkit_script_dialog_get_dialog_type(dialog);
    if (type == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
        // Nobody can answer; leaving the page is always allowed.
        webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
        return true;
    }
    if (EngineJSDialogHandler* handler = client->GetJSDialogHandler()) {
        EngineJSDialogType dialogType = JSDIALOGTYPE_ALERT;
        std::string defaultText;
        if (type == WEBKIT_SCRIPT_DIALOG_CONFIRM) {
            dialogType = JSDIALOGTYPE_CONFIRM;
        } else if (type == WEBKIT_SCRIPT_DIALOG_PROMPT) {
            dialogType = JSDIALOGTYPE_PROMPT;
            if (const char* text = webkit_script_dialog_prompt_get_default_text(dialog))
                defaultText = text;
        }
        const char* message = webkit_script_dialog_get_message(dialog);
        bool suppress = false;
        handler->OnJSDialog(browser, originUrl, dialogType, message ? message : "", defaultText, suppress);
    }
    // Every dialog ends unanswered (confirm is false, prompt null).
    if (type == WEBKIT_SCRIPT_DIALOG_CONFIRM)
        webkit_script_dialog_confirm_set_confirmed(dialog, FALSE);
    return true;
}

EngineCursorType CursorForHitTest(WebKitHitTestResult* hit)
{
    if (webkit_hit_test_result_context_is_link(hit))
        return CT_HAND;
    if (webkit_hit_test_result_context_is_editable(hit))
        return CT_IBEAM;
    return CT_POINTER;
}

} // namespace SLF_ChromiumEmbeddedFramework
