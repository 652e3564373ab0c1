// The seeding hooks that libcrypto, configured without a seed source,
// expects its platform to supply.
//
// The loader only verifies signatures and computes digests, neither of which
// draws random numbers.  These hooks therefore deliver no entropy at all:
// should anything ever ask libcrypto for random bytes, its generator fails
// to instantiate and the call fails, instead of handing out predictable
// bytes.
#include <stddef.h>

struct rand_pool_st;

int ossl_rand_pool_init(void) { return 1; }

void ossl_rand_pool_cleanup(void) {}

void ossl_rand_pool_keep_random_devices_open(int keep) { (void)keep; }

size_t ossl_pool_acquire_entropy(struct rand_pool_st* pool) {
  (void)pool;
  return 0;
}

int ossl_pool_add_nonce_data(struct rand_pool_st* pool) {
  (void)pool;
  return 0;
}
