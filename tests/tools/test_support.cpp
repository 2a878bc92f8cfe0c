// shared test helpers
