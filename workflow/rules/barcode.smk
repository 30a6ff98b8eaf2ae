# Scatter: one barcoder job per shard, into SAVE_PATH/.shards/<shard>; the
# Snakefile's merge_shards gathers them. The shard folders are temporary:
# Snakemake removes them once the merge has succeeded and keeps the finished
# ones when a shard fails, so that the next run only redoes what is missing.
# The resources are what a cluster job asks for (a local run ignores them);
# a retried job (--restart-times) asks for twice as much, and
# --set-resources barcode_shard:mem_mb=N barcode_shard:runtime=MINUTES
# overrides both.


rule barcode_shard:
    input:
        lambda wildcards: SHARDS[wildcards.shard],
    output:
        temp(directory(os.path.join(SHARD_ROOT, "{shard}"))),
    log:
        os.path.join(LOGS, "{shard}.log"),
    params:
        script=os.path.join(workflow.basedir, "scripts", "run_shard.sh"),
        barcoder=BARCODER,
        options=OPTIONS,
    threads: THREADS
    resources:
        mem_mb=lambda wildcards, input, threads, attempt: shard_mem_mb(input.size_mb, threads) * attempt,
        runtime=lambda wildcards, input, threads, attempt: shard_runtime_min(input.size_mb, threads) * attempt,
    shell:
        "bash {params.script:q} {params.barcoder:q} {output:q} {log:q} {threads} {params.options:q} -- {input:q}"

