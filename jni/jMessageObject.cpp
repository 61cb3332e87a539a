// The native methods of kelvane.tallowin.MessageObject.

#include "api/cMessageObject.h"
#include "jni/kvxjni.h"

using Message = KVXCIMPL_MessageObject;

extern "C" {

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_nConstruct(JNIEnv* env, jobject self) {
    kvxConstruct(env, self, KvxNative::kMessageConstruct, CreateMessageObject);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_nDestruct(JNIEnv* env, jobject self) {
    kvxDestruct<Message>(env, self, KvxNative::kMessageDestruct);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_Open(JNIEnv* env, jobject self, jstring path) {
    kvxJavaCall<Message>(env, self, KvxNative::kMessageOpen,
                         [&](Message& message) { message.Open(kvxTextOf(env, path)); });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_SetAttribute(JNIEnv* env, jobject self, jstring name,
                                                                        jstring value) {
    if (name == nullptr || value == nullptr) {
        kvxRefuse(env, KvxNative::kMessageSetAttribute, kKvxNullNameOrValue);
        return;
    }
    kvxJavaCall<Message>(env, self, KvxNative::kMessageSetAttribute,
                         [&](Message& message) { message.SetAttribute(kvxTextOf(env, name), kvxTextOf(env, value)); });
}

JNIEXPORT jstring JNICALL Java_kelvane_tallowin_MessageObject_GetAttribute(JNIEnv* env, jobject self, jstring name) {
    return kvxJavaText<Message>(env, self, KvxNative::kMessageGetAttribute, [&](Message& message, TbString& value) {
        message.GetAttribute(kvxTextOf(env, name), value);
    });
}

JNIEXPORT jstring JNICALL Java_kelvane_tallowin_MessageObject_GetURL(JNIEnv* env, jobject self) {
    return kvxJavaText<Message>(env, self, KvxNative::kMessageGetURL,
                                [](Message& message, TbString& url) { message.GetURL(url); });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_Capture(JNIEnv* env, jobject self) {
    kvxJavaCall<Message>(env, self, KvxNative::kMessageCapture, [](Message& message) { message.Capture(); });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_MessageObject_nExecute(JNIEnv* env, jobject self) {
    return kvxJavaMake<Message>(env, self, KvxNative::kMessageExecute,
                                [](Message& message) { return message.Execute(); });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageObject_FromString(JNIEnv* env, jobject self, jstring text) {
    kvxJavaCall<Message>(env, self, KvxNative::kMessageFromString,
                         [&](Message& message) { message.FromString(kvxTextOf(env, text)); });
}

JNIEXPORT jstring JNICALL Java_kelvane_tallowin_MessageObject_ToString(JNIEnv* env, jobject self) {
    return kvxJavaText<Message>(env, self, KvxNative::kMessageToString,
                                [](Message& message, TbString& text) { text = message.ToString(); });
}

}  // extern "C"
