/* A C program of somebody else's: uses the flat functions of the installed library. */

#include <stdio.h>
#include <string.h>
#include <tallowin/tallowin.h>

int main(void) {
    char text[64] = "";
    int32_t size = (int32_t)sizeof text;
    KVX_HANDLE const message = CreateMessageObject();
    int const works = strcmp(KVX_GetVersion(), TALLOWIN_VERSION_STRING) == 0 &&
                      MessageObject_FromString(message, "<KVX A=\"1\"/>") == KVX_OK &&
                      MessageObject_GetAttribute(message, "A", &size, text) == KVX_OK && strcmp(text, "1") == 0 &&
                      MessageObject_Capture(message) == KVX_E_NO_CONTEXT;
    DestroyMessageObject(message);
    printf("C: %s\n", works ? "works" : "FAILS");
    return works && MessageObject_Capture(message) == KVX_E_BAD_HANDLE ? 0 : 1;
}
