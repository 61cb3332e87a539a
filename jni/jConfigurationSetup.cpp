// The native methods of kelvane.tallowin.ConfigurationSetup.

#include "api/cConfigurationSetup.h"
#include "jni/kvxjni.h"

using Setup = KVXCIMPL_ConfigurationSetup;

extern "C" {

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_nConstruct(JNIEnv* env, jobject self) {
    kvxConstruct(env, self, KvxNative::kSetupConstruct, CreateConfigurationSetup);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_nDestruct(JNIEnv* env, jobject self) {
    kvxDestruct<Setup>(env, self, KvxNative::kSetupDestruct);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetConfiguration(JNIEnv* env, jobject self,
                                                                                 jstring path) {
    kvxJavaCall<Setup>(env, self, KvxNative::kSetupSetConfiguration,
                       [&](Setup& setup) { setup.SetConfiguration(kvxTextOf(env, path)); });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_Reconfigure(JNIEnv* env, jobject self, jstring url,
                                                                            jstring user, jstring password) {
    kvxJavaCall<Setup>(env, self, KvxNative::kSetupReconfigure, [&](Setup& setup) {
        setup.Reconfigure(kvxTextOf(env, url), kvxTextOf(env, user), kvxTextOf(env, password));
    });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetOption(JNIEnv* env, jobject self, jstring name,
                                                                          jstring value) {
    if (name == nullptr || value == nullptr) {
        kvxRefuse(env, KvxNative::kSetupSetOption, kKvxNullNameOrValue);
        return;
    }
    kvxJavaCall<Setup>(env, self, KvxNative::kSetupSetOption,
                       [&](Setup& setup) { setup.SetOption(kvxTextOf(env, name), kvxTextOf(env, value)); });
}

JNIEXPORT jstring JNICALL Java_kelvane_tallowin_ConfigurationSetup_GetAttribute(JNIEnv* env, jobject self, jstring file,
                                                                                jstring name) {
    return kvxJavaText<Setup>(env, self, KvxNative::kSetupGetAttribute, [&](Setup& setup, TbString& value) {
        setup.GetAttribute(kvxTextOf(env, file), kvxTextOf(env, name), value);
    });
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetAttribute(JNIEnv* env, jobject self, jstring file,
                                                                             jstring name, jstring value) {
    if (file == nullptr || name == nullptr || value == nullptr) {
        kvxRefuse(env, KvxNative::kSetupSetAttribute, kKvxNullFileNameOrValue);
        return;
    }
    kvxJavaCall<Setup>(env, self, KvxNative::kSetupSetAttribute, [&](Setup& setup) {
        setup.SetAttribute(kvxTextOf(env, file), kvxTextOf(env, name), kvxTextOf(env, value));
    });
}

}  // extern "C"
