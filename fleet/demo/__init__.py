"""A fleet on one machine: two database servers on loopback, appliances with volumes of their own, and what is asked of them."""
