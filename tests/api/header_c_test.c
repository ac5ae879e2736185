/* The public header is plain C: every record and export, with the layout checks. */
#include "deskline/deskline.h"

int main(void) {
  NetworkInitData data = {0};
  PtapParameterContainer params = {0};
  ModuleVariables vars = {0};
  int32_t (*fns[])(void) = {uninitialize, open_voice, close_voice, AudioModuleStart};
  (void)data;
  (void)params;
  (void)vars;
  (void)fns;
  return (int)(sizeof(NetworkInitData) != (sizeof(void*) == 8 ? 152 : 132));
}
