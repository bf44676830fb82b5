// What a plug-in of this tree says of itself to the daemon that loads it (Bess/Plugin.h).
extern "C" {
extern const char sfePluginVersion[];
const char sfePluginVersion[] = SFE_VERSION;
}
