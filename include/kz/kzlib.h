/* kzlib: the umbrella header, one include for every family. */
#ifndef KZ_KZLIB_H
#define KZ_KZLIB_H

#include "kz/addr.h"
#include "kz/array.h"
#include "kz/base.h"
#include "kz/channel.h"
#include "kz/codec.h"
#include "kz/compress.h"
#include "kz/config.h"
#include "kz/daemon.h"
#include "kz/env.h"
#include "kz/error.h"
#include "kz/features.h"
#include "kz/file.h"
#include "kz/format.h"
#include "kz/init.h"
#include "kz/lock.h"
#include "kz/memory.h"
#include "kz/message.h"
#include "kz/process.h"
#include "kz/random.h"
#include "kz/select.h"
#include "kz/server.h"
#include "kz/sort.h"
#include "kz/ssl.h" /* declares nothing when KZ_WITH_SSL is 0 */
#include "kz/thread.h"
#include "kz/unicode.h"
#include "kz/url.h"

#endif /* KZ_KZLIB_H */
