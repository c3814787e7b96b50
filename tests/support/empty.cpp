// Keeps the support library non-empty before any helper exists.
namespace akudoa_test_support_anchor { int anchor = 0; }
