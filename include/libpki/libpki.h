/*
 * libpki.h: the whole interface. Include one subject's header instead where that is enough.
 */
#ifndef LIBPKI_LIBPKI_H
#define LIBPKI_LIBPKI_H

#include <libpki/attributes.h>
#include <libpki/crl.h>
#include <libpki/error.h>
#include <libpki/http.h>
#include <libpki/marshal.h>
#include <libpki/names.h>
#include <libpki/oids.h>
#include <libpki/pkcs7.h>
#include <libpki/records.h>
#include <libpki/scep_client.h>
#include <libpki/scep_msg.h>
#include <libpki/store.h>
#include <libpki/trace.h>
#include <libpki/trust_roots.h>
#include <libpki/types.h>
#include <libpki/util.h>
#include <libpki/verify.h>

#endif
