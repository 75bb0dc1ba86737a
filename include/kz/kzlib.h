/* kzlib: the umbrella header, one include for every family. */
#ifndef KZ_KZLIB_H
#define KZ_KZLIB_H

#include "kz/base.h"
#include "kz/memory.h"
#include "kz/array.h"
#include "kz/error.h"
#include "kz/message.h"
#include "kz/format.h"
#include "kz/unicode.h"
#include "kz/codec.h"
#include "kz/compress.h"
#include "kz/sort.h"
#include "kz/init.h"
#include "kz/thread.h"
#include "kz/lock.h"
#include "kz/addr.h"
#include "kz/url.h"
#include "kz/random.h"
#include "kz/file.h"

#endif /* KZ_KZLIB_H */
